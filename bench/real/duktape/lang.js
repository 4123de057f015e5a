// The language core: closures, prototypes, exceptions with finally,
// getters/setters, arguments, labelled loops, switch and sorting.
function counter(start) {
  var n = start;
  return { inc: function () { return ++n; }, get: function () { return n; } };
}
var c1 = counter(10), c2 = counter(100);
c1.inc(); c1.inc(); c2.inc();
print(c1.get(), c2.get());

var fns = [];
for (var i = 0; i < 5; i++) { fns.push((function (j) { return function () { return j * j; }; })(i)); }
print(fns.map(function (f) { return f(); }).join(','));

function Shape(name) { this.name = name; }
Shape.prototype.area = function () { return 0; };
Shape.prototype.toString = function () { return this.name + ':' + this.area().toFixed(3); };
function Circle(r) { Shape.call(this, 'circle'); this.r = r; }
Circle.prototype = Object.create(Shape.prototype);
Circle.prototype.area = function () { return Math.PI * this.r * this.r; };
function Rect(w, h) { Shape.call(this, 'rect'); this.w = w; this.h = h; }
Rect.prototype = Object.create(Shape.prototype);
Rect.prototype.area = function () { return this.w * this.h; };
var shapes = [new Circle(1.5), new Rect(2, 3.5), new Shape('dot'), new Circle(0.25)];
shapes.sort(function (a, b) { return a.area() - b.area(); });
print(shapes.join(' '), shapes[0] instanceof Shape, shapes[3] instanceof Circle);

function MyError(msg) { this.message = msg; }
MyError.prototype = Object.create(Error.prototype);
MyError.prototype.name = 'MyError';
var trace = [];
function risky(k) {
  try {
    if (k === 0) throw new MyError('zero');
    if (k === 1) null.x;
    if (k === 2) undefinedFunction();
    if (k === 3) return 'returned';
    trace.push('body' + k);
  } catch (e) {
    trace.push(e.name + ':' + (e instanceof MyError));
    if (k === 1) throw e;
  } finally {
    trace.push('finally' + k);
  }
  return 'end' + k;
}
for (var k = 0; k < 5; k++) {
  try { trace.push(risky(k)); } catch (e) { trace.push('rethrown ' + e.name); }
}
print(trace.join(' | '));

var o = { _v: 1, get v() { return this._v * 10; }, set v(x) { this._v = x + 1; } };
o.v = 4;
print(o.v, Object.keys(o).join(','));
function variadic() { return Array.prototype.slice.call(arguments, 1).reverse().join('-'); }
print(variadic(1, 2, 3, 4), variadic.length, variadic.apply(null, ['a', 'b', 'c']));

var out = [];
outer: for (var a = 0; a < 5; a++) {
  for (var b = 0; b < 5; b++) {
    if (b > a) continue outer;
    if (a + b > 6) break outer;
    out.push(a * 10 + b);
  }
}
print(out.join(' '));
function kind(v) {
  switch (typeof v) {
    case 'number': return v % 1 ? 'float' : 'int';
    case 'string': return 'str' + v.length;
    case 'object': return v === null ? 'null' : Array.isArray(v) ? 'array' : 'object';
    default: return typeof v;
  }
}
print([1, 2.5, 'abc', null, [], {}, undefined, kind].map(kind).join(' '));
var words = 'the quick brown fox jumps over the lazy dog again and again'.split(' ');
var freq = {};
words.forEach(function (w) { freq[w] = (freq[w] || 0) + 1; });
print(Object.keys(freq).sort(function (x, y) { return freq[y] - freq[x] || (x < y ? -1 : 1); }).join(' '));
var fib = [0, 1];
while (fib.length < 60) { fib.push(fib[fib.length - 1] + fib[fib.length - 2]); }
print(fib[59], fib.reduce(function (s, x) { return s + x; }, 0));
