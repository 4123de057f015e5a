// String functions: searching, slicing, case mapping, padding, Unicode and
// building large strings.
var s = 'The Quick Brown Fox Jumps Over The Lazy Dog';
print(s.length, s.indexOf('The'), s.lastIndexOf('The'), s.indexOf('cat'), s.charAt(4), s.charCodeAt(5));
print(s.toUpperCase(), '|', s.toLowerCase());
print(s.substring(4, 9), s.substr(-8, 4), s.slice(-3), s.slice(10, -10));
print(s.split(' ').map(function (w) { return w.split('').reverse().join(''); }).join(' '));
print('  padded\t\n'.trim() + '|', 'abc'.concat('def', 1, 2), 'x'.repeat ? 'ab'.repeat(3) : 'ababab');
print('\u00c9cole \u00fcber \u0130stanbul \u03a3\u03b9\u03c3\u03c5\u03c6\u03bf\u03c2'.toLowerCase());
print('stra\u00dfe \u00e9t\u00e9 \u03c3'.toUpperCase());
var u = 'h\u00e9llo w\u00f6rld \u4e2d\u6587 \ud83d\ude00';
print(u.length, encodeURIComponent(u), escape('a b+c'));
print(decodeURIComponent('%E4%B8%AD%E6%96%87%20%F0%9F%98%80') === '\u4e2d\u6587 \ud83d\ude00');
print(encodeURI('http://x.org/a b?q=1&r=\u00e9#frag'));
try { decodeURIComponent('%E4%B8'); } catch (e) { print(e.name); }
var parts = [];
for (var i = 0; i < 2000; i++) { parts.push(String.fromCharCode(65 + i % 26) + i); }
var big = parts.join(',');
print(big.length, big.slice(0, 30), big.slice(-20));
var counts = {};
for (var j = 0; j < big.length; j++) { var ch = big.charAt(j); counts[ch] = (counts[ch] || 0) + 1; }
print(Object.keys(counts).sort().map(function (k) { return k + counts[k]; }).join(''));
print(['b', 'a', 'C', 'aa', 'B', '10', '9'].sort().join(' '), 'a'.localeCompare('b'), 'b' < 'a');
var fmt = 'Name: %s, Age: %d, Score: %s';
var vals = ['Ada', 36, (97.5).toFixed(1)];
var k = 0;
print(fmt.replace(/%[sd]/g, function () { return vals[k++]; }));
print(String(null), String([1, [2, 3]]), String({}), typeof String(1), new String('obj').length);
print('abc' === 'a' + 'b' + 'c', 'abc'.search(/c/), 'aXbXc'.split('X', 2).join('+'));
var str = '';
for (var n = 0; n < 300; n++) { str += n.toString(36); }
print(str.length, str.indexOf('zz'), str.charCodeAt(str.length - 1));
