'use strict';
// Number formatting and the live progress line of the CLI.

function bytes(n) {
  const units = ['B', 'kB', 'MB', 'GB', 'TB'];
  let i = 0;
  let v = n;
  while (v >= 1000 && i < units.length - 1) {
    v /= 1000;
    i++;
  }
  return i === 0 ? `${n} B` : `${v.toFixed(1)} ${units[i]}`;
}

function rate(perSecond) {
  if (perSecond >= 1e6) return `${(perSecond / 1e6).toFixed(2)}M`;
  if (perSecond >= 1e3) return `${(perSecond / 1e3).toFixed(1)}k`;
  return perSecond.toFixed(0);
}

// Text from outside (a device's object names and ids) made safe to print:
// control characters (C0, DEL, C1), the bidirectional overrides and
// isolates, line and paragraph separators and lone surrogates are written
// as escapes (\x1b, \u202e), so a name cannot move the cursor, recolour the
// terminal or pose as another line. Backslashes stay (device ids hold them
// and are copied from this output).
const UNPRINTABLE = /[\u0000-\u001f\u007f-\u009f\u061c\u200e\u200f\u2028-\u202e\u2066-\u2069]|\p{Surrogate}/gu;
function printable(text) {
  return String(text).replace(UNPRINTABLE, (c) => {
    const code = c.charCodeAt(0);
    return code < 0x100 ? `\\x${code.toString(16).padStart(2, '0')}` : `\\u${code.toString(16).padStart(4, '0')}`;
  });
}

// One line on a terminal, rewritten in place with a carriage return at most
// every `intervalMs`; padded so that a shorter line hides the longer one
// before it, and cut to the terminal's width so that it never wraps.
class ProgressLine {
  constructor(stream, { intervalMs = 100, now = () => Date.now() } = {}) {
    this.stream = stream;
    this.intervalMs = intervalMs;
    this.now = now;
    this.last = -Infinity;
    this.width = 0;
  }

  update(textFn, force = false) {
    const t = this.now();
    if (!force && t - this.last < this.intervalMs) return;
    this.last = t;
    let text = textFn();
    const columns = this.stream.columns || 80;
    if (text.length > columns - 1) text = text.slice(0, columns - 1);
    this.stream.write(`\r${text.padEnd(this.width)}`);
    this.width = text.length;
  }

  clear() {
    if (this.width) this.stream.write(`\r${' '.repeat(this.width)}\r`);
    this.width = 0;
  }
}

module.exports = { bytes, rate, printable, ProgressLine };
