// Regular expressions: the compiler, the backtracking matcher, captures,
// flags and the String methods built on them.
var log = [];
function show(x) { log.push(JSON.stringify(x)); }

var date = /(\d{4})-(\d{2})-(\d{2})/;
show(date.exec('released on 2022-02-19, patched 2023-01-05'));
show('2022-02-19 and 2023-01-05'.replace(/(\d{4})-(\d{2})-(\d{2})/g, '$3.$2.$1'));

var re = /\b([a-z]+)\s+\1\b/gi;
var text = 'This is is a test test of the the regexp engine';
var m, found = [];
while ((m = re.exec(text)) !== null) { found.push(m[1] + '@' + m.index + '/' + re.lastIndex); }
show(found);

show('a1b22c333d'.split(/\d+/));
show('a,b;;c , d'.split(/\s*[,;]\s*/));
show('one two  three'.match(/\w+/g));
show(/^(?:ab|a)(?:bc|c)$/.test('abc'));
show(/^(a+)+b$/.test('aaaaaaaaaaaaaaaaaaab'));
show(/x(?=y)/.exec('xzxy').index);
show(/x(?!y)/.exec('xyxz').index);
show(/[^\x00-\x7f]+/.exec('ascii \u00e9t\u00e9 done')[0].length);
show(/^\s*$/m.test('line\n   \nline'));
show('CamelCaseString'.replace(/([a-z])([A-Z])/g, function (all, a, b) {
  return a + '_' + b.toLowerCase();
}));
show(/(a)|(b)/.exec('b'));
show(new RegExp('[.*+?^${}()|[\\]\\\\]', 'g').source);
show('a.b*c'.replace(new RegExp('[.*+?^${}()|[\\]\\\\]', 'g'), '\\$&'));
var email = /^[\w.+-]+@([\w-]+\.)+[a-z]{2,}$/i;
show(['me@example.org', 'bad@', 'x.y+z@sub.host.net', '@no.pe'].map(function (s) {
  return email.test(s);
}));
try { new RegExp('(unclosed'); } catch (e) { show(e.name); }
print(log.join('\n'));
