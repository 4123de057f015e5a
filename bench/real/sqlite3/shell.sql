-- The shell: output modes, dot commands, parameters, import and dump,
-- and the extensions built into it (series, regexp, sha3, decimal,
-- ieee754, uint).
CREATE TABLE t(a INTEGER PRIMARY KEY, b TEXT, c REAL, d BLOB);
INSERT INTO t SELECT value, printf('row "%d", with comma', value), value / 7.0, x'00ff' || zeroblob(value % 3)
  FROM generate_series(1, 200);
.headers on
.nullvalue NULL
.mode box
SELECT a, b, c, NULL AS n FROM t WHERE a <= 3;
.mode markdown
SELECT a, b FROM t WHERE a BETWEEN 4 AND 5;
.mode json
SELECT a, b, c, d FROM t WHERE a IN (6, 7);
.mode line
SELECT * FROM t WHERE a = 8;
.mode quote
SELECT * FROM t WHERE a = 9;
.mode insert copy
SELECT * FROM t WHERE a = 10;
.mode table --wrap 12
SELECT a, b || b AS long FROM t WHERE a = 11;
.mode tabs
SELECT a, c FROM t WHERE a > 198;
.mode csv
.once t.csv
SELECT * FROM t;
CREATE TABLE u(a INTEGER PRIMARY KEY, b TEXT, c REAL, d BLOB);
.import --skip 1 t.csv u
.mode list
.separator |
SELECT count(*), sum(a), sum(length(b)), total(c) FROM u;
.changes on
UPDATE u SET b = upper(b) WHERE a % 50 = 0;
.changes off
.parameter init
.parameter set @lo 100
.parameter set $hi 120
SELECT count(*) FROM t WHERE a BETWEEN @lo AND $hi;
.parameter list
.parameter clear
.tables
.indexes
CREATE INDEX t_c ON t(c);
.schema --indent t
.eqp on
SELECT b FROM t WHERE c > 27;
.eqp off
.dump u
.sha3sum
SELECT hex(sha3('abc')), hex(sha3('abc', 384)), hex(sha3_query('SELECT * FROM t WHERE a < 10'));
SELECT count(*) FROM t WHERE b REGEXP '"[0-9]*7",';
SELECT decimal_add('1.000000000000000000001', '2.5'), decimal_mul('123456789.123456789', '987654321.98'),
       decimal_cmp('1.10', '1.1'), decimal_sum(c) FROM t WHERE a < 5;
SELECT ieee754(2.5), ieee754(1, -3), ieee754_mantissa(10.0), ieee754_exponent(10.0);
WITH v(b) AS (VALUES ('x10'), ('x9'), ('x100')) SELECT b FROM v ORDER BY b COLLATE uint;
SELECT value FROM generate_series(10, 100, 30);
.print done
.bail on
SELECT * FROM t WHERE a = 'x' ORDER BY nosuchcolumn;
.print not reached
