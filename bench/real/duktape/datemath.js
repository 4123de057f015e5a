// Date parsing, arithmetic and formatting (run with TZ=UTC) and Math,
// number formatting and parsing.
var d = new Date(Date.UTC(2021, 1, 28, 23, 59, 30, 250));
print(d.toISOString(), d.getTime(), d.getUTCDay());
d.setUTCSeconds(d.getUTCSeconds() + 45);
print(d.toISOString(), d.getUTCMonth(), d.getUTCDate());
print(new Date(2000, 0, 1).toISOString(), new Date(0).toUTCString());
print(Date.parse('2012-02-29T12:00:00Z'), Date.parse('2012-02-29T12:00:00.123+02:30'));
print(new Date('1999-12-31T23:59:59Z').toString());
print(new Date(1e15).toISOString(), isNaN(new Date('not a date').getTime()));
var leap = [1900, 2000, 2004, 2100, 2024].map(function (y) {
  return new Date(Date.UTC(y, 2, 0)).getUTCDate();
});
print(leap.join(' '));
print(JSON.stringify(new Date(Date.UTC(1970, 0, 1, 0, 0, 1))));

var xs = [0, 0.5, 1, 2, Math.PI, -3.75, 1e-10, 1e300];
print(xs.map(function (x) { return Math.sin(x).toFixed(6); }).join(' '));
print(xs.map(function (x) { return Math.exp(x / 100).toPrecision(8); }).join(' '));
print(Math.atan2(1, -1), Math.pow(2, 0.5), Math.sqrt(2), Math.log(10), Math.cbrt ? Math.cbrt(27) : 3);
print(Math.floor(-2.5), Math.ceil(-2.5), Math.round(-2.5), Math.round(2.5), Math.trunc(-7.9));
print(Math.max(), Math.min(), Math.max(3, NaN), Math.hypot(3, 4), Math.sign(-0.1));
print((1234.5678).toFixed(2), (0.000001234).toExponential(3), (123.456).toPrecision(4));
print((255).toString(16), (255).toString(2), (-255).toString(36), (0.1 + 0.2));
print(parseInt('0x1f'), parseInt('077', 8), parseFloat('3.14abc'), Number('  12e3  '), Number('12px'));
print(1 / 3, 2 / 3, 1e21, 1e-7, 123456789012345680000, -0 === 0, 1 / -0);
print(Number.MAX_VALUE, Number.MIN_VALUE, 0x7fffffff | 0, 0xffffffff >>> 0, -1 >>> 28, 1 << 31);
var seed = 12345, acc = 0;
for (var i = 0; i < 2000; i++) {
  seed = (seed * 1103515245 + 12345) % 2147483648;
  acc += Math.sqrt(seed) % 7;
}
print(seed, acc.toFixed(4));
