'use strict';
// Shared pieces of the telemetry suites: recording tracers and reporters,
// waiting for deliveries, and the module and probe paths for child scripts.
const path = require('path');
const { buildDir, root } = require('./helpers');

const probePath = path.join(buildDir(), 'test', 'runtime_probe.node').replace(/\\/g, '/');
const modulePath = root.replace(/\\/g, '/');

// A tracer that keeps every span it starts: { at, name, attrs: [[k, v]...], ended }.
function recordingTracer() {
  const spans = [];
  const tracer = {
    spans,
    startSpan(name) {
      const span = { at: performance.now(), name, attrs: [], ended: false };
      spans.push(span);
      return {
        setAttribute(key, value) {
          span.attrs.push([key, value]);
        },
        end() {
          span.ended = true;
        },
      };
    },
  };
  return tracer;
}

// The attributes of a span as an object (first value of each key).
const attrsOf = (span) => Object.fromEntries(span.attrs);
const spansNamed = (tracer, name) => tracer.spans.filter((s) => attrsOf(s).dim_0 === name);

const { waitFor } = require('./helpers');

module.exports = { probePath, modulePath, recordingTracer, attrsOf, spansNamed, waitFor };
