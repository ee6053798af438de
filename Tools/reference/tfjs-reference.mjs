#!/usr/bin/env node
// Reference outputs of the TensorFlow.js networks that `quillon-pkg import` converts to ONNX.
//
// For every entry of NETWORKS the network is loaded from .deps/networks (scripts/setup puts it
// there) with pure-JavaScript TensorFlow.js from .deps/tfjs on its CPU backend, run once on a
// deterministic input, and a sample of every output is written to tests/data/networks/<id>.json.
// The importer's tests feed the same input to the converted ONNX network and compare.
//
// Input: an NHWC tensor of shape [1, H, W, C] (C = 3) whose element (h, w, c) is
//     v = (h*7 + w*13 + c*29 + (h*w) % 17) % 256        (integer arithmetic)
// stored as
//     float32 v / 255   for networks taking 0..1        ("scale": 255)
//     float32 v         for networks taking 0..255      ("scale": 1)
//     int32   v         for networks taking int32 0..255 ("scale": 1, "dtype": "int32")
// The flat index of (h, w, c) is (h*W + w)*C + c. The division is done in double and rounded
// to float32, which gives the same float as a float32 division.
//
// Output file (one per network):
//   {
//     "id", "package" (npm name@version), "file" (model.json relative to .deps/networks),
//     "format" ("graph-model" | "layers-model"), "tfjs" (version), "backend" ("cpu"),
//     "input":   {"name", "shape", "dtype", "scale", "formula"},
//     "outputs": [{"name", "signatureKey" (graph models), "shape", "dtype", "total",
//                  "stride", "values"}]
//   }
// Outputs are listed in the order TensorFlow.js reports them (the order of the network's
// signature). "name" is the TensorFlow tensor name without ":0" (the output layer's name for
// layers models); "shape" is TensorFlow's (NHWC). "values" holds the elements at flat indices
// 0, k, 2k, ... with k = "stride" = max(1, ceil(total / 2048)), each written with the fewest
// digits that still read back as the same float32.
//
// Usage: node Tools/reference/tfjs-reference.mjs [--only ID]... [--list]
import fs from 'node:fs';
import path from 'node:path';
import { createRequire } from 'node:module';
import { fileURLToPath } from 'node:url';

const root = path.resolve(path.dirname(fileURLToPath(import.meta.url)), '..', '..');
const networksDir = path.join(root, '.deps', 'networks');
const outDir = path.join(root, 'tests', 'data', 'networks');
const FORMULA = 'v = (h*7 + w*13 + c*29 + (h*w) % 17) % 256; element = v / scale';
const MAX_VALUES = 2048;

// id, model.json under .deps/networks, input height and width, input kind:
//   'unit'  float32 0..1, 'byte' float32 0..255, 'int32' int32 0..255.
const NETWORKS = [
  { id: 'esrgan-medium-x2', file: 'esrgan-medium/models/x2/model.json', h: 24, w: 24, kind: 'byte' },
  { id: 'esrgan-medium-x4', file: 'esrgan-medium/models/x4/model.json', h: 24, w: 24, kind: 'byte' },
  { id: 'esrgan-thick-x2', file: 'esrgan-thick/models/x2/model.json', h: 16, w: 16, kind: 'unit' },
  { id: 'esrgan-thick-x4', file: 'esrgan-thick/models/x4/model.json', h: 16, w: 16, kind: 'unit' },
  { id: 'blazeface', file: 'human-models/models/blazeface.json', h: 256, w: 256, kind: 'unit' },
  { id: 'blazeface-front', file: 'human-models/models/blazeface-front.json', h: 128, w: 128, kind: 'unit' },
  { id: 'mobilefacenet', file: 'human-models/models/mobilefacenet.json', h: 112, w: 112, kind: 'unit' },
  { id: 'faceres', file: 'human-models/models/faceres.json', h: 224, w: 224, kind: 'unit' },
  { id: 'facemesh', file: 'human-models/models/facemesh.json', h: 192, w: 192, kind: 'unit' },
  { id: 'movenet-lightning', file: 'human-models/models/movenet-lightning.json', h: 192, w: 192, kind: 'int32' },
  { id: 'selfie', file: 'human-models/models/selfie.json', h: 256, w: 256, kind: 'unit' },
  { id: 'meet', file: 'human-models/models/meet.json', h: 144, w: 256, kind: 'unit' },
  { id: 'blazepose-detector', file: 'human-models/models/blazepose-detector.json', h: 224, w: 224, kind: 'unit' },
  { id: 'blazepose-full', file: 'human-models/models/blazepose-full.json', h: 256, w: 256, kind: 'unit' },
];

const USAGE = 'usage: node Tools/reference/tfjs-reference.mjs [--only ID]... [--list]\n' +
  '  writes tests/data/networks/<id>.json for every network (or only the named ones)';

function parseArgs(argv) {
  const only = [];
  for (let i = 0; i < argv.length; ++i) {
    const a = argv[i];
    if (a === '--help' || a === '-h') { console.log(USAGE); process.exit(0); }
    if (a === '--list') { for (const n of NETWORKS) console.log(n.id); process.exit(0); }
    if (a === '--only' && i + 1 < argv.length) { only.push(argv[++i]); continue; }
    if (a.startsWith('--only=')) { only.push(a.slice('--only='.length)); continue; }
    console.error(`tfjs-reference: unknown argument '${a}'\n${USAGE}`);
    process.exit(2);
  }
  for (const id of only) {
    if (!NETWORKS.some((n) => n.id === id)) {
      console.error(`tfjs-reference: no network '${id}' (known: ${NETWORKS.map((n) => n.id).join(', ')})`);
      process.exit(2);
    }
  }
  return only;
}

function loadTf() {
  const tfjsDir = path.join(root, '.deps', 'tfjs');
  if (!fs.existsSync(path.join(tfjsDir, 'node_modules', '@tensorflow', 'tfjs'))) {
    console.error('tfjs-reference: .deps/tfjs is missing; run scripts/setup');
    process.exit(1);
  }
  const require = createRequire(path.join(tfjsDir, 'package.json'));
  const tf = require('@tensorflow/tfjs');
  const version = require('@tensorflow/tfjs/package.json').version;
  return { tf, version };
}

// The UpscalerJS packages define these layers in their JavaScript only, so they have to be
// registered before the layers models that use them can be read.
function registerUpscalerLayers(tf) {
  const first = (inputs) => (Array.isArray(inputs) ? inputs[0] : inputs);
  class MultiplyBeta extends tf.layers.Layer {
    static className = 'MultiplyBeta';
    call(inputs) { return tf.mul(first(inputs), 0.2); }
  }
  tf.serialization.registerClass(MultiplyBeta);
  for (const k of [2, 3, 4, 8]) {
    class PixelShuffle extends tf.layers.Layer {
      static className = `PixelShuffle${k}x`;
      computeOutputShape(s) {
        const mul = (d) => (d == null ? null : d * k);
        return [s[0], mul(s[1]), mul(s[2]), s[3] == null ? null : s[3] / (k * k)];
      }
      call(inputs) { return tf.depthToSpace(first(inputs), k, 'NHWC'); }
    }
    tf.serialization.registerClass(PixelShuffle);
  }
}

// model.json plus its weight shards, concatenated in manifest order.
function readArtifacts(tf, jsonPath) {
  const json = JSON.parse(fs.readFileSync(jsonPath, 'utf8'));
  const dir = path.dirname(jsonPath);
  return tf.io.getModelArtifactsForJSON(json, async (manifest) => {
    const entries = [];
    const shards = [];
    for (const group of manifest) {
      for (const p of group.paths) shards.push(fs.readFileSync(path.join(dir, p)));
      entries.push(...group.weights);
    }
    const all = Buffer.concat(shards);
    return [entries, all.buffer.slice(all.byteOffset, all.byteOffset + all.byteLength)];
  }).then((artifacts) => ({ json, artifacts }));
}

function makeInput(tf, h, w, kind) {
  const c = 3;
  const data = kind === 'int32' ? new Int32Array(h * w * c) : new Float32Array(h * w * c);
  for (let y = 0; y < h; ++y) {
    for (let x = 0; x < w; ++x) {
      for (let ch = 0; ch < c; ++ch) {
        const v = (y * 7 + x * 13 + ch * 29 + ((y * x) % 17)) % 256;
        data[(y * w + x) * c + ch] = kind === 'unit' ? v / 255 : v;
      }
    }
  }
  return tf.tensor(data, [1, h, w, c], kind === 'int32' ? 'int32' : 'float32');
}

// Shortest decimal text that reads back as the same float32 (as a JSON number).
function f32Number(v) {
  if (!Number.isFinite(v)) throw new Error(`non-finite output value ${v}`);
  if (Number.isInteger(v)) return v;
  for (let p = 1; p <= 9; ++p) {
    const n = Number(v.toPrecision(p));
    if (Math.fround(n) === v) return n;
  }
  return v;
}

async function sample(tensor) {
  const data = await tensor.data();
  const total = data.length;
  const stride = Math.max(1, Math.ceil(total / MAX_VALUES));
  const values = [];
  for (let i = 0; i < total; i += stride) values.push(f32Number(data[i]));
  return { shape: tensor.shape, dtype: tensor.dtype, total, stride, values };
}

function packageOf(file) {
  const pkgJson = path.join(networksDir, file.split('/')[0], 'package.json');
  const pkg = JSON.parse(fs.readFileSync(pkgJson, 'utf8'));
  return `${pkg.name}@${pkg.version}`;
}

async function runNetwork(tf, tfVersion, net) {
  const jsonPath = path.join(networksDir, net.file);
  const { json, artifacts } = await readArtifacts(tf, jsonPath);
  const input = makeInput(tf, net.h, net.w, net.kind);
  const result = {
    id: net.id,
    package: packageOf(net.file),
    file: net.file,
    format: json.format,
    tfjs: tfVersion,
    backend: tf.getBackend(),
    input: {
      name: '',
      shape: input.shape,
      dtype: input.dtype,
      scale: net.kind === 'unit' ? 255 : 1,
      formula: FORMULA,
    },
    outputs: [],
  };
  if (json.format === 'layers-model') {
    const model = await tf.loadLayersModel(tf.io.fromMemory(artifacts));
    const config = json.modelTopology.model_config?.config ?? json.modelTopology.config;
    result.input.name = config.input_layers[0][0];
    const names = config.output_layers.map((o) => o[0]);
    let outs = model.predict(input);
    if (!Array.isArray(outs)) outs = [outs];
    for (let i = 0; i < outs.length; ++i) {
      result.outputs.push({ name: names[i], ...(await sample(outs[i])) });
    }
    tf.dispose(outs);
    model.dispose();
  } else {
    const model = await tf.loadGraphModel(tf.io.fromMemory(artifacts));
    if (model.inputs.length !== 1) throw new Error(`expected one input, found ${model.inputs.length}`);
    const want = model.inputs[0];
    result.input.name = want.name;
    if (want.shape) {
      const ok = want.shape.length === 4 &&
        [1, net.h, net.w, 3].every((d, i) => want.shape[i] == null || want.shape[i] < 0 || want.shape[i] === d);
      if (!ok) throw new Error(`input ${want.name} has shape [${want.shape}], not [1,${net.h},${net.w},3]`);
    }
    if (want.dtype && want.dtype !== input.dtype) {
      throw new Error(`input ${want.name} is ${want.dtype}, the table says ${input.dtype}`);
    }
    const outNodes = model.outputNodes;
    const outs = model.execute(input, outNodes);
    const list = Array.isArray(outs) ? outs : [outs];
    for (let i = 0; i < list.length; ++i) {
      const info = model.outputs[i];
      const name = info.name.replace(/:0$/, '');
      result.outputs.push({ name, signatureKey: outNodes[i], ...(await sample(list[i])) });
    }
    tf.dispose(list);
    model.dispose();
  }
  input.dispose();
  return result;
}

// Indented JSON with every array of numbers on one line.
function formatJson(value) {
  return JSON.stringify(value, null, 2)
    .replace(/\[\s*(-?[0-9][-+0-9.eE]*(?:,\s*-?[0-9][-+0-9.eE]*)*)\s*\]/g,
      (m, inner) => `[${inner.split(/,\s*/).join(',')}]`) + '\n';
}

async function main() {
  const only = parseArgs(process.argv.slice(2));
  const { tf, version } = loadTf();
  await tf.setBackend('cpu');
  await tf.ready();
  registerUpscalerLayers(tf);
  fs.mkdirSync(outDir, { recursive: true });
  let failed = 0;
  for (const net of NETWORKS) {
    if (only.length && !only.includes(net.id)) continue;
    const t0 = Date.now();
    try {
      const result = await runNetwork(tf, version, net);
      const text = formatJson(result);
      const out = path.join(outDir, `${net.id}.json`);
      fs.writeFileSync(out, text);
      const shapes = result.outputs.map((o) => `${o.name}[${o.shape}]`).join(' ');
      console.log(`${net.id}: ${shapes} -> ${path.relative(root, out)} ` +
        `(${text.length} bytes, ${((Date.now() - t0) / 1000).toFixed(1)} s)`);
    } catch (e) {
      ++failed;
      console.error(`${net.id}: FAILED: ${e.stack || e}`);
    }
  }
  process.exit(failed ? 1 : 0);
}

main();
