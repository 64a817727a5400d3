// The viewer of `pixwerk serve`: the chain's tiles on a map in the raster's own coordinates,
// the value under the cursor, and the chain's top function's arguments as a form whose
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

function typed(kind, text, checked) {
  if (kind === 'true or false') return checked;
  if (kind === 'an integer') return Number.parseInt(text, 10);
  if (kind === 'a number') return Number.parseFloat(text);
  return text;
}

function buildForm(chain, functions) {
  const form = document.getElementById('arguments');
  form.replaceChildren();
  const top = chain.function.split('.').pop();
  const declared = functions[top] || [];
  const heading = document.createElement('h2');
  heading.textContent = top;
  form.append(heading);
  for (const argument of declared) {
    const simple = ['an integer', 'a number', 'true or false', 'a text'];
    if (!simple.includes(argument.kind)) continue;
    const label = document.createElement('label');
    label.textContent = argument.name;
    label.htmlFor = `argument-${argument.name}`;
    const given = chain.arguments ? chain.arguments[argument.name] : undefined;
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
      } else {
        input.type = argument.kind === 'a text' ? 'text' : 'number';
        if (argument.kind === 'a number') input.step = 'any';
        if (argument.minimum !== undefined) input.min = argument.minimum;
        if (argument.maximum !== undefined) input.max = argument.maximum;
        if (value !== undefined) input.value = String(value);
      }
    }
    input.id = `argument-${argument.name}`;
    input.name = argument.name;
    input.addEventListener('change', () => change(argument, input));
    const help = document.createElement('div');
    help.className = 'help';
    help.textContent = argument.help;
    form.append(label, input, help);
  }
}

async function change(argument, input) {
  const next = structuredClone(state.chain);
  next.arguments = next.arguments || {};
  next.arguments[argument.name] = typed(argument.kind, input.value, input.checked);
  status('binding the changed chain...');
  try {
    await request('api/chain', { method: 'PUT', body: JSON.stringify(next) });
    state.chain = next;
    state.version += 1;
    // A new key: every tile of the old chain is stale.
    state.source.setTileUrlFunction(tileUrl, String(state.version));
    status(`${argument.name} is now ${JSON.stringify(next.arguments[argument.name])}`);
  } catch (error) {
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
