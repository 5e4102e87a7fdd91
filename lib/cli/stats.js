'use strict';
// The module's call statistics during a command: a tracer that sums the
// "api_stat" spans it receives per call name. With no tracer registered the
// module would log every flush it cannot make.

function collectStats(ostrel) {
  const byName = new Map();
  const tracer = {
    startSpan() {
      const attrs = {};
      return {
        setAttribute(key, value) {
          attrs[key] = value;
        },
        end() {
          const name = String(attrs.dim_0);
          const s = byName.get(name) || { calls: 0, ms: 0, maxMs: 0, code: 0, message: '' };
          s.calls += Number(attrs.indsum_0) || 0;
          s.ms += Number(attrs.indsum_2) || 0;
          s.maxMs = Math.max(s.maxMs, Number(attrs.indavg_0) || 0);
          if (!s.code && Number(attrs.dim_1)) {
            s.code = Number(attrs.dim_1);
            s.message = String(attrs.dim_2 || '');
          }
          byName.set(name, s);
        },
      };
    },
  };
  ostrel.RegisterTracer(tracer);
  return {
    stats: byName,
    // Lets the process exit: a registered tracer keeps it alive.
    stop() {
      ostrel.UnRegisterTracers();
    },
    table() {
      if (!byName.size) return '  (no native calls recorded)\n';
      const rows = [...byName].sort((a, b) => b[1].ms - a[1].ms);
      return rows
        .map(
          ([name, s]) =>
            `  ${name.padEnd(22)} ${String(s.calls).padStart(9)} calls ${String(s.ms).padStart(8)} ms total ` +
            `${String(s.maxMs).padStart(6)} ms max${s.code ? `  first error ${s.code}${s.message ? ` (${s.message})` : ''}` : ''}`,
        )
        .join('\n')
        .concat('\n');
    },
  };
}

module.exports = { collectStats };
