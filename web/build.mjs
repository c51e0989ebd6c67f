// node web/build.mjs TARGET: makes the web tree as image/stage lays it out. Scripts and styles are bundled; what is fetched
// later, and what several of them share, becomes files of their own, named after their content. Everything else is taken
// as it is. TARGET is replaced as a whole when all of it is there.
import { cp, mkdir, readFile, rename, rm, writeFile } from 'node:fs/promises';
import { dirname, join, resolve } from 'node:path';
import { fileURLToPath } from 'node:url';

import * as esbuild from 'esbuild';

const here = dirname(fileURLToPath(import.meta.url));
const target = resolve(process.argv[2]);
const fresh = `${target}.new`;
const assets = join(fresh, 'assets');

// The client library stays a file of its own, for other pages to use; the interface imports it from beside itself.
const clientBeside = {
  name: 'client-beside',
  setup(build) {
    build.onResolve({ filter: /\/client\/index\.js$/ }, ({ kind }) =>
      kind === 'entry-point' ? undefined : { path: './client.js', external: true },
    );
  },
};

await rm(fresh, { recursive: true, force: true });
await mkdir(assets, { recursive: true });
await esbuild.build({
  absWorkingDir: here,
  entryPoints: {
    client: './client/index.js',
    app: './app/main.js',
    style: './app/style.css',
    about: './about/main.js',
    'about-style': './about/style.css',
  },
  outdir: assets,
  bundle: true,
  minify: true,
  format: 'esm',
  splitting: true,
  chunkNames: '[name]-[hash]',
  target: ['chrome100', 'firefox100', 'safari16.4'],
  legalComments: 'eof',
  logLevel: 'warning',
  plugins: [clientBeside],
});
await cp(join(here, 'pictures'), assets, { recursive: true });
for (const name of ['index2.html', 'start.css', 'start.js', 'about.html', 'favicon.ico', 'skins', 'varnox']) {
  await cp(join(here, name), join(fresh, name), { recursive: true });
}
await writeFile(join(fresh, 'licenses.txt'), await licenses());
await rm(target, { recursive: true, force: true });
await rename(fresh, target);

// What others wrote and is in the bundles, with the terms that they ask to be told.
async function licenses() {
  const { dependencies } = JSON.parse(await readFile(join(here, 'package.json'), 'utf8'));
  const parts = Object.entries(dependencies).map(async ([name, version]) => {
    const text = await readFile(join(here, 'node_modules', name, 'LICENSE'), 'utf8');
    return `${name} ${version}\n\n${text}`;
  });
  return (await Promise.all(parts)).join('\n\n');
}
