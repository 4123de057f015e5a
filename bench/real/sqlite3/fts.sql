-- A full-text index (FTS4) over generated text.
CREATE VIRTUAL TABLE docs USING fts4(title, body, tokenize=porter);
WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 2000),
  w(k, word) AS (VALUES (0, 'alpha'), (1, 'beta'), (2, 'gamma'), (3, 'delta'), (4, 'running'), (5, 'runs'),
                        (6, 'epsilon'), (7, 'zeta'), (8, 'theta'), (9, 'iota'), (10, 'kappa'), (11, 'lambda')),
  b(i, body) AS (SELECT i, group_concat(word, ' ') FROM
                   (SELECT i, word FROM n JOIN w WHERE (k * 13 + i) % 5 < 2 ORDER BY i, (k * i) % 11, k) GROUP BY i)
INSERT INTO docs(docid, title, body)
SELECT i, (SELECT word FROM w WHERE k = i % 12) || ' ' || (SELECT word FROM w WHERE k = i % 7), body FROM b;
SELECT count(*) FROM docs WHERE docs MATCH 'alpha';
SELECT count(*) FROM docs WHERE docs MATCH 'run';
SELECT count(*) FROM docs WHERE docs MATCH 'title:gamma body:delta';
SELECT count(*) FROM docs WHERE docs MATCH '"beta gamma"';
SELECT count(*) FROM docs WHERE docs MATCH 'alpha NEAR/2 kappa';
SELECT count(*) FROM docs WHERE docs MATCH 'lam* -zeta';
SELECT docid, snippet(docs, '[', ']', '...', -1, 4), offsets(docs), hex(matchinfo(docs))
  FROM docs WHERE docs MATCH 'theta iota' ORDER BY docid LIMIT 5;
INSERT INTO docs(docs) VALUES ('optimize');
DELETE FROM docs WHERE docid % 2 = 0;
SELECT count(*) FROM docs WHERE docs MATCH 'alpha OR beta';
INSERT INTO docs(docs) VALUES ('integrity-check');
