// The viewer of `pixwerk serve`: the chain's tiles on a map in the raster's own coordinates,
// the value under the cursor, and the arguments of every function of the chain as a form whose
// changes the server binds and the map shows.
import 'ol/ol.css';
import './style.css';
import Map from 'ol/Map.js';
import View from 'ol/View.js';
import TileLayer from 'ol/layer/Tile.js';
import TileImage from 'ol/source/TileImage.js';
import TileGrid from 'ol/tilegrid/TileGrid.js';
import Projection from 'ol/proj/Projection.js';

const state = {
  version: 0, // of the chain, counted from the page's start
  renderedVersion: -1, // the version whose tiles are all drawn
  info: null,
  chain: null,
  source: null,
  identify: null,
};
window.pixwerk = state; // for the browser tests and the curious

async function request(url, options) {
  const response = await fetch(url, options);
  const body = await response.json();
  if (!response.ok) throw new Error(body.error || response.statusText);
  return body;
}

function status(text, error = false) {
  const element = document.getElementById('status');
  element.textContent = text;
  element.className = error ? 'error' : '';
}

function rasterExtent(info) {
  const [x0, dx, , y0, , dy] = info.geotransform;
  return [x0, y0 + dy * info.height, x0 + dx * info.width, y0];
}

function tileUrl([z, x, y]) {
  return `api/tiles/${z}/${x}/${y}.png?v=${state.version}`;
}

function makeMap(info) {
  const extent = rasterExtent(info);
  const degrees = info.proj4 && info.proj4.includes('+proj=longlat');
  const projection = new Projection({
    code: 'pixwerk:raster',
    units: info.crs ? (degrees ? 'degrees' : 'm') : 'pixels',
    extent,
  });
  const cell = info.geotransform[1];
  const resolutions = [];
  for (let z = 0; z <= info.maxZoom; ++z) resolutions.push(cell * 2 ** (info.maxZoom - z));
  const tileGrid = new TileGrid({
    origin: [extent[0], extent[3]],
    resolutions,
    tileSize: info.tileSize,
    extent,
  });
  state.source = new TileImage({
    projection,
    tileGrid,
    transition: 0,
    tileUrlFunction: tileUrl,
  });
  const map = new Map({
    target: 'map',
    layers: [new TileLayer({ source: state.source, extent })],
    view: new View({ projection, extent, resolutions, constrainOnlyCenter: true }),
  });
  map.getView().fit(extent);
  map.on('rendercomplete', () => {
    state.renderedVersion = state.version;
  });
  let pending = null;
  map.on('pointermove', (event) => {
    const [x, y] = event.coordinate;
    clearTimeout(pending);
    pending = setTimeout(() => identify(x, y), 40);
  });
  return map;
}

async function identify(x, y) {
  const where = `x ${x.toFixed(2)}, y ${y.toFixed(2)}`;
  const element = document.getElementById('cursor');
  try {
    const answer = await request(`api/identify?x=${x}&y=${y}`);
    state.identify = { x, y, ...answer };
    const values = answer.values.map((v) => (v === null ? 'no value' : String(v))).join(', ');
    element.textContent = `${where} (cell ${answer.column}, ${answer.row}): ${values}`;
  } catch (error) {
    state.identify = { x, y, error: error.message };
    element.textContent = `${where}: ${error.message}`;
  }
}

const LISTS = ['an array of integers', 'an array of numbers', 'a number or an array of numbers',
  'an array of texts'];
const SIMPLE = ['an integer', 'a number', 'true or false', 'a text', ...LISTS];

// The value an input holds, of the argument's kind; throws with the reason when it is not.
function typed(argument, input) {
  const { kind, name } = argument;
  if (kind === 'true or false') return input.checked;
  const text = input.value.trim();
  const number = (word) => {
    const value = Number(word);
    if (word === '' || !Number.isFinite(value)) throw new Error(`${name}: '${word}' is not a number`);
    if (kind.includes('integer') && !Number.isInteger(value))
      throw new Error(`${name}: '${word}' is not an integer`);
    return value;
  };
  if (kind === 'an integer' || kind === 'a number') return number(text);
  if (kind === 'a text') return text;
  // Lists: values apart by commas or blanks (texts by commas).
  const words = kind === 'an array of texts'
    ? text.split(',').map((w) => w.trim()).filter((w) => w !== '')
    : text.split(/[\s,]+/).filter((w) => w !== '');
  if (kind === 'an array of texts') return words;
  const values = words.map(number);
  if (kind === 'a number or an array of numbers' && values.length === 1) return values[0];
  return values;
}

function shown(argument, value) {
  if (value === undefined || value === null) return '';
  // A default in words ("none") is a hint, not a value.
  if (typeof value === 'string' && argument.kind !== 'a text') {
    const numeric = argument.kind === 'an integer' || argument.kind === 'a number';
    return numeric && value.trim() !== '' && Number.isFinite(Number(value)) ? value : '';
  }
  if (Array.isArray(value)) return value.join(argument.kind === 'an array of texts' ? ', ' : ' ');
  return String(value);
}

// Every function of a chain, the top first, each with the path to its object.
function functionsOf(value, path = [], out = []) {
  if (Array.isArray(value)) {
    value.forEach((item, i) => functionsOf(item, [...path, i], out));
  } else if (value && typeof value === 'object' && typeof value.function === 'string') {
    out.push({ node: value, path });
    for (const [key, item] of Object.entries(value.arguments || {}))
      functionsOf(item, [...path, 'arguments', key], out);
  }
  return out;
}

function buildForm(chain, functions) {
  const form = document.getElementById('arguments');
  form.replaceChildren();
  functionsOf(chain).forEach(({ node, path }, index) => {
    const name = node.function.split('.').pop();
    const declared = functions[name] || [];
    const heading = document.createElement(index === 0 ? 'h2' : 'h3');
    heading.textContent = index === 0 ? name : `${name} (input ${path.filter((k) => typeof k === 'string' && k !== 'arguments').join(' / ')})`;
    form.append(heading);
    for (const argument of declared) {
      if (!SIMPLE.includes(argument.kind)) continue;
      const label = document.createElement('label');
      label.textContent = argument.name;
      const id = index === 0 ? `argument-${argument.name}` : `argument-${index}-${argument.name}`;
      label.htmlFor = id;
      const given = node.arguments ? node.arguments[argument.name] : undefined;
      const value = given !== undefined ? given : argument.default;
      let input;
      if (argument.choices.length) {
        input = document.createElement('select');
        for (const choice of argument.choices) {
          const option = document.createElement('option');
          option.value = String(choice.value);
          option.textContent = `${choice.value} ${choice.name}`;
          input.append(option);
        }
        const chosen = argument.choices.find((c) => c.name === value || String(c.value) === String(value));
        if (chosen) input.value = String(chosen.value);
      } else {
        input = document.createElement('input');
        if (argument.kind === 'true or false') {
          input.type = 'checkbox';
          input.checked = value === true || value === 'true';
        } else if (LISTS.includes(argument.kind) || argument.kind === 'a text') {
          input.type = 'text';
          // Not given: the default as a hint, so that only what the user types is sent.
          input.value = given === undefined ? '' : shown(argument, value);
          input.placeholder = given === undefined && argument.default !== undefined
            ? `default: ${shown({ kind: 'a text' }, argument.default)}`
            : LISTS.includes(argument.kind) ? 'values apart by commas or blanks' : '';
        } else {
          input.type = 'number';
          if (argument.kind === 'a number') input.step = 'any';
          if (argument.minimum !== undefined) input.min = argument.minimum;
          if (argument.maximum !== undefined) input.max = argument.maximum;
          input.value = shown(argument, value);
          if (input.value === '' && argument.default !== undefined) input.placeholder = `default: ${argument.default}`;
        }
      }
      input.id = id;
      input.name = argument.name;
      input.addEventListener('change', () => change(path, argument, input));
      const help = document.createElement('div');
      help.className = 'help';
      help.textContent = `${argument.help} (${argument.kind})`;
      form.append(label, input, help);
    }
  });
}

async function change(path, argument, input) {
  const next = structuredClone(state.chain);
  let node = next;
  for (const key of path) node = node[key];
  node.arguments = node.arguments || {};
  try {
    node.arguments[argument.name] = typed(argument, input);
  } catch (error) {
    status(error.message, true);
    return;
  }
  status('binding the changed chain...');
  try {
    await request('api/chain', { method: 'PUT', body: JSON.stringify(next) });
    state.chain = next;
    state.version += 1;
    // A new key: every tile of the old chain is stale.
    state.source.setTileUrlFunction(tileUrl, String(state.version));
    status(`${argument.name} is now ${JSON.stringify(node.arguments[argument.name])}`);
  } catch (error) {
    // The server keeps the chain it had: the form shows that one again.
    status(error.message, true);
  }
}

async function start() {
  try {
    state.info = await request('api/info');
    const { chain, functions } = await request('api/chain');
    state.chain = chain;
    const info = state.info;
    document.getElementById('title').textContent = chain.name || chain.function;
    document.getElementById('raster').textContent =
      `${info.width} x ${info.height} cells, ${info.bandCount} band(s) of ${info.pixelType}` +
      (info.proj4 ? `; ${info.proj4}` : '; no reference: pixel space');
    makeMap(info);
    buildForm(chain, functions);
  } catch (error) {
    status(error.message, true);
  }
}

start();
