-- JSON functions and operators.
.mode list
SELECT json(' { "a" : [1, 2.5, "x", null, true], "b": {"c": -3e2} } ');
SELECT json_extract('{"a":{"b":[10,20,30]}}', '$.a.b[1]', '$.a.b[#-1]'), '{"k":[1,{"m":"v"}]}' -> '$.k[1]',
       '{"k":[1,{"m":"v"}]}' ->> '$.k[1].m', json_array_length('[1,2,[3,4]]'), json_type('{"a":1.5}', '$.a');
SELECT json_set('{"a":1}', '$.b', json('[2,3]'), '$.a', 'x'), json_insert('[1,2]', '$[#]', 3),
       json_replace('{"a":1,"b":2}', '$.b', NULL), json_remove('[0,1,2,3]', '$[1]', '$[0]'),
       json_patch('{"a":1,"b":{"c":2}}', '{"b":{"c":null,"d":4},"e":5}'), json_valid('{"a":'), json_quote('x"y');
SELECT key, value, type, fullkey FROM json_each('{"x":1,"y":[2,3],"z":{"w":null}}');
SELECT fullkey, type, atom, path FROM json_tree('{"a":[1,{"b":[true,false]}],"c":"d"}');
WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 2000)
SELECT json_group_object(printf('k%d', i % 10), i) FROM n WHERE i % 97 = 0;
WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 3000),
  docs(d) AS (SELECT json_object('id', i, 'tags', json_array(i % 3, i % 5), 'name', printf('n%04d', i),
                                 'score', i * 1.25) FROM n)
SELECT d ->> '$.tags[0]' AS t, count(*), sum(d ->> '$.score'), max(d ->> '$.name'),
       json_group_array(d -> '$.id') FILTER (WHERE d ->> '$.id' % 400 = 0)
  FROM docs GROUP BY t ORDER BY t;
SELECT json_object('nested', json_object('arr', json_array(1, 'two', 3.0, NULL, json('{}')))), json_array(-0.0, 1e300);
SELECT json('{"a":1,}');
