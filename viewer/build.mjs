// Bundles the viewer into one folder that `pixwerk serve` serves: index.html, viewer.js and
// viewer.css. Usage: node build.mjs OUTPUT_FOLDER
import { build } from 'esbuild';
import { copyFileSync, mkdirSync } from 'node:fs';
import { dirname, join } from 'node:path';
import { fileURLToPath } from 'node:url';

const here = dirname(fileURLToPath(import.meta.url));
const out = process.argv[2] || join(here, 'dist');
mkdirSync(out, { recursive: true });
await build({
  entryPoints: [join(here, 'src', 'main.js')],
  bundle: true,
  minify: true,
  format: 'iife',
  target: ['es2020'],
  outfile: join(out, 'viewer.js'),
  loader: { '.css': 'css' },
  logLevel: 'warning',
});
copyFileSync(join(here, 'src', 'index.html'), join(out, 'index.html'));
