// Reads a LAS 1.4 file with the independent npm reader copc and prints its points as
// JSON: node read_las.mjs <folder where copc is installed> <file.las>
import { createRequire } from 'module';
import fs from 'fs';
const require = createRequire(process.argv[2] + '/');
const { Las } = require('copc');
const bytes = new Uint8Array(fs.readFileSync(process.argv[3]));
const header = Las.Header.parse(bytes.subarray(0, 375));
// The extra-bytes VLR follows the WKT VLR.
let pos = 375, extra = [];
for (let i = 0; i < 2; ++i) {
  const dv = new DataView(bytes.buffer, bytes.byteOffset + pos, 54);
  const user = new TextDecoder().decode(bytes.subarray(pos + 2, pos + 18)).replace(/\0.*$/, '');
  const id = dv.getUint16(18, true), len = dv.getUint16(20, true);
  if (user === 'LASF_Spec' && id === 4) extra = Las.ExtraBytes.parse(bytes.subarray(pos + 54, pos + 54 + len));
  pos += 54 + len;
}
const view = Las.View.create(bytes.subarray(header.pointDataOffset), header, extra);
const names = ['X', 'Y', 'Z', 'Intensity', 'ReturnNumber', 'NumberOfReturns', 'range',
               'Classification', 'ScanAngle'];
const get = Object.fromEntries(names.map(n => [n, view.getter(n)]));
const out = [];
for (let i = 0; i < view.pointCount; ++i) out.push(names.map(n => get[n](i)));
console.log(JSON.stringify({ pointCount: header.pointCount, points: out }));
