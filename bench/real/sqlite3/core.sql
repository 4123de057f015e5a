-- Tables filled by recursive CTEs, an index, joins, grouping, window
-- functions, date and printf functions, triggers, upserts, a transaction
-- rolled back, query plans.
.headers on
PRAGMA page_size = 1024;
CREATE TABLE dept(id INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE, budget REAL);
CREATE TABLE emp(id INTEGER PRIMARY KEY, name TEXT, dept INTEGER REFERENCES dept(id),
                 salary INTEGER, hired TEXT, boss INTEGER);
INSERT INTO dept(name, budget) VALUES ('research', 1.5e6), ('sales', 750000), ('support', 320000.5), ('admin', NULL);
WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 5000)
INSERT INTO emp SELECT i, printf('emp%05d', i), 1 + (i * 7) % 4, 30000 + (i * 7919) % 90000,
                       date('2000-01-01', '+' || (i * 37 % 8000) || ' days'),
                       CASE WHEN i > 10 THEN i / 10 END FROM n;
CREATE INDEX emp_dept_salary ON emp(dept, salary);
SELECT count(*), sum(salary), min(hired), max(hired) FROM emp;
SELECT d.name, count(*), round(avg(e.salary), 2), max(e.salary)
  FROM emp e JOIN dept d ON d.id = e.dept GROUP BY d.name ORDER BY d.name;
SELECT d.name, count(e.id) FROM dept d LEFT JOIN emp e ON e.dept = d.id AND e.salary > 119000 GROUP BY d.id;
SELECT name, dept, salary, rank() OVER w, lag(name) OVER w, ntile(4) OVER w,
       sum(salary) OVER (PARTITION BY dept ORDER BY salary ROWS BETWEEN 2 PRECEDING AND CURRENT ROW)
  FROM emp WHERE id % 250 = 0 WINDOW w AS (PARTITION BY dept ORDER BY salary DESC) ORDER BY dept, salary DESC;
SELECT dept, group_concat(id, ','), first_value(id) OVER (ORDER BY dept RANGE BETWEEN 1 PRECEDING AND 1 FOLLOWING)
  FROM emp WHERE id < 30 GROUP BY dept;
WITH RECURSIVE chain(id, depth, path) AS (
  SELECT id, 0, name FROM emp WHERE id = 4321
  UNION ALL
  SELECT e.boss, depth + 1, path || ' > ' || b.name FROM chain c JOIN emp e ON e.id = c.id JOIN emp b ON b.id = e.boss)
SELECT * FROM chain;
SELECT strftime('%Y', hired) AS y, count(*) FROM emp GROUP BY y HAVING count(*) > 230 ORDER BY y;
SELECT date('2024-02-28', '+1 day'), datetime('2000-01-01 12:00:00', '+90 minutes', 'start of month'),
       julianday('2023-06-15') - julianday('2000-01-01'), strftime('%j %w %W %s %H:%M:%f', '2021-12-31 23:59:59.25'),
       time(45296, 'unixepoch'), date(2460000.5), datetime('2022-03-01', 'weekday 0', '-1 month');
SELECT printf('%5d|%-8s|%08.3f|%x|%o|%e|%q|%Q|%,d|%.2g|%c|%!.20g|%w', 42, 'ab', 3.14159, 255, 8, 12345.678,
              'it''s', NULL, 1234567, 0.000123, 'z', 0.1, 'a"b');
SELECT round(sqrt(2), 6), pow(2, 10), floor(-2.5), ceil(2.1), round(ln(10), 6), round(log10(12345), 6),
       round(pi(), 10), mod(17, 5), round(degrees(pi() / 3), 6), 7 / 2, 7 / 2.0, -7 % 3, 1 << 40, ~5;
SELECT name FROM dept WHERE EXISTS (SELECT 1 FROM emp WHERE emp.dept = dept.id AND salary > 119900) ORDER BY 1;
SELECT count(*) FROM emp WHERE name LIKE 'EMP01%' OR name GLOB '*99';
SELECT upper(substr(name, 4)), instr(name, '0'), replace(name, '0', '_'), hex(name), length(name),
       quote(zeroblob(3)), trim('  x  '), ltrim('xxy', 'x'), char(72, 105), unicode('A')
  FROM emp WHERE id IN (1, 22, 333, 4444);
SELECT coalesce(budget, -1), typeof(budget),
       CASE WHEN budget > 1e6 THEN 'big' WHEN budget IS NULL THEN 'none' ELSE 'small' END,
       iif(id % 2, 'odd', 'even'), nullif(id, 2), cast(budget AS INTEGER), cast('12abc' AS REAL)
  FROM dept ORDER BY id;
CREATE VIEW payroll AS SELECT dept, sum(salary) AS total FROM emp GROUP BY dept;
CREATE TABLE audit(id INTEGER PRIMARY KEY, what TEXT);
CREATE TRIGGER emp_raise AFTER UPDATE OF salary ON emp WHEN new.salary > old.salary
BEGIN INSERT INTO audit(what) VALUES (printf('%s +%d', new.name, new.salary - old.salary)); END;
UPDATE emp SET salary = salary + 1000 WHERE id % 1000 = 7;
SELECT * FROM audit ORDER BY id;
SELECT * FROM payroll ORDER BY dept;
INSERT INTO dept(name, budget) VALUES ('sales', 1)
  ON CONFLICT(name) DO UPDATE SET budget = budget + excluded.budget RETURNING id, name, budget;
BEGIN;
DELETE FROM emp WHERE dept = 2;
SELECT count(*) FROM emp;
SAVEPOINT s1;
UPDATE emp SET salary = 0;
ROLLBACK TO s1;
SELECT sum(salary) FROM emp;
ROLLBACK;
SELECT count(*), sum(salary) FROM emp;
INSERT INTO dept(name) VALUES ('research');
SELECT * FROM nosuchtable;
EXPLAIN QUERY PLAN SELECT * FROM emp WHERE dept = 3 AND salary > 100000;
EXPLAIN QUERY PLAN SELECT d.name, count(*) FROM emp e JOIN dept d ON d.id = e.dept GROUP BY d.name;
EXPLAIN QUERY PLAN SELECT * FROM emp WHERE boss IN (SELECT id FROM emp WHERE salary < 30100) ORDER BY hired;
SELECT dept FROM emp UNION SELECT id FROM dept EXCEPT SELECT 4 ORDER BY 1;
SELECT DISTINCT salary % 7 FROM emp ORDER BY 1 DESC LIMIT 3 OFFSET 1;
EXPLAIN SELECT name, salary FROM emp WHERE dept = 2 AND salary BETWEEN 50000 AND 50100 ORDER BY salary;
SELECT a.id, b.id FROM emp a, emp b WHERE a.id < 4 AND b.id < 3 ORDER BY 1, 2;
ANALYZE;
SELECT tbl, idx, stat FROM sqlite_stat1 ORDER BY tbl, idx;
DELETE FROM emp WHERE id % 3 = 0;
VACUUM;
PRAGMA integrity_check;
PRAGMA page_count;
SELECT count(*), sum(salary) FROM emp;
