// JSON: parse, stringify with replacers, indentation and revivers, plus
// duktape's own JX/JC encodings.
var doc = {
  name: 'bench', version: [2, 7, 0], nested: { a: [1, { b: null }], t: true, f: false },
  text: 'quote " backslash \\ tab \t newline \n unicode \u00e9\u4e2d',
  num: [0, -0, 1.5, -2.25e-7, 1e21, 123456789012],
  undef: undefined, fn: function () {}
};
var s = JSON.stringify(doc);
print(s);
print(JSON.stringify(doc, null, 2));
print(JSON.stringify(doc, ['name', 'nested', 'a']));
print(JSON.stringify(doc.num, function (k, v) { return typeof v === 'number' ? v * 2 : v; }));
var back = JSON.parse(s);
print(back.text === doc.text, back.nested.a[1].b, back.version.length, 'undef' in back);
print(JSON.stringify(JSON.parse('{"x":[1,2,{"y":"z"}],"d":"2020-01-02"}', function (k, v) {
  return k === 'd' ? v.split('-').reverse().join('/') : v;
})));
var bad = ['{', '{"a":}', '[1,]', '"\\x"', 'tru', '01'];
bad.forEach(function (t) {
  try { JSON.parse(t); print('parsed', t); } catch (e) { print(e.name, t); }
});
var deep = [];
for (var i = 0, cur = deep; i < 50; i++) { cur.push([]); cur = cur[0]; }
print(JSON.stringify(deep).length);
var cyc = { a: 1 }; cyc.self = cyc;
try { JSON.stringify(cyc); } catch (e) { print(e.name); }
print(Duktape.enc('jx', { a: undefined, b: NaN, c: Infinity, buf: Uint8Array.allocPlain(3) }));
print(Duktape.enc('jc', { a: undefined, b: -Infinity }));
print(JSON.stringify(Duktape.dec('jx', '{a:1,b:NaN,c:[undefined]}')));
print(Duktape.enc('hex', 'duk'), Duktape.enc('base64', 'duktape!'));
print(String.fromCharCode.apply(null, new Uint8Array(Duktape.dec('base64', 'ZHVrdGFwZSE='))));
