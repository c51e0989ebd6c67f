import { bytes, milliseconds } from './format.js';

// Asks for each file in turn and shows what came, then the sums.
export async function showFiles(rows, sums, files) {
  const sum = { sent: 0, unpacked: 0, took: 0 };
  for (const path of files) {
    const seen = await load(path);
    rows.append(row('td', [path, seen.type, seen.form, bytes(seen.sent), bytes(seen.unpacked), milliseconds(seen.took)]));
    for (const key of Object.keys(sum)) sum[key] += seen[key];
  }
  const title = `${files.length} files`;
  sums.append(row('td', [title, '', '', bytes(sum.sent), bytes(sum.unpacked), milliseconds(sum.took)]));
}

async function load(path) {
  const began = performance.now();
  const response = await fetch(path, { cache: 'no-store' });
  if (!response.ok) throw new Error(`${path}: ${response.status} ${response.statusText}`);
  const body = await response.arrayBuffer();
  return {
    took: performance.now() - began,
    type: response.headers.get('content-type') ?? '',
    form: response.headers.get('content-encoding') ?? 'plain',
    sent: Number(response.headers.get('content-length')),
    unpacked: body.byteLength,
  };
}

const firstNumber = 3;

function row(tag, cells) {
  const line = document.createElement('tr');
  cells.forEach((text, column) => {
    const cell = document.createElement(tag);
    if (column >= firstNumber) cell.className = 'number';
    cell.textContent = text;
    line.append(cell);
  });
  return line;
}
