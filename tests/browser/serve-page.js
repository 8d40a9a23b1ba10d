#!/usr/bin/env node
// The page of `tamrik serve` in a real browser (Debian's chromium, headless, driven by
// playwright-core): the fleet table lists the simulated gateways online, a gateway's inputs move
// on screen, an output bit pressed on the page arrives at the simulator; then a service that
// wants a token, with a gateway that is offline.
//
//   node serve-page.js --tool BUILD/tamrik --deps BUILD/browser --out BUILD/browser
//   node serve-page.js --mock --deps DIR --out DIR      (against tests/browser/mock_serve.py)
//   --settle MS: how long the plot fills before the screenshot of the gateway (1500)
//
// Exits 77 (skipped) when chromium or playwright-core cannot be had; every wait is bounded.
'use strict';

const { spawn, spawnSync } = require('node:child_process');
const fs = require('node:fs');
const path = require('node:path');
const { createRequire } = require('node:module');

const SKIP = 77;
const WAIT_MS = 10000;

function parseArgs(argv) {
  const args = { chromium: process.env.CHROMIUM || '/usr/bin/chromium', gateway: 'gw2' };
  for (let i = 0; i < argv.length; i++) {
    const key = argv[i].replace(/^--/, '');
    if (key === 'mock') args.mock = true;
    else args[key] = argv[++i];
  }
  if (!args.deps || !args.out || (!args.tool && !args.mock)) {
    console.error('usage: serve-page.js (--tool TAMRIK | --mock) --deps DIR --out DIR [--chromium PATH]');
    process.exit(2);
  }
  return args;
}

function skip(why) {
  console.log(`SKIPPED: ${why}`);
  process.exit(SKIP);
}

// playwright-core from the pinned lock file, installed into the build tree. `npm ci` runs only
// when the lock file changed since the last install, so that an offline machine that installed
// once keeps passing; a machine that never could install skips.
function loadPlaywright(depsDir) {
  const here = __dirname;
  const lock = fs.readFileSync(path.join(here, 'package-lock.json'), 'utf8');
  const stamp = path.join(depsDir, 'installed-lock.json');
  const requireFrom = createRequire(path.join(depsDir, 'package.json'));
  const installed = () => { try { requireFrom.resolve('playwright-core'); return true; } catch (e) { return false; } };
  const current = fs.existsSync(stamp) && fs.readFileSync(stamp, 'utf8') === lock;
  if (!current || !installed()) {
    fs.mkdirSync(depsDir, { recursive: true });
    for (const f of ['package.json', 'package-lock.json']) fs.copyFileSync(path.join(here, f), path.join(depsDir, f));
    const npm = spawnSync('npm', ['ci', '--prefer-offline', '--no-audit', '--no-fund', '--ignore-scripts'],
                          { cwd: depsDir, stdio: 'inherit', timeout: 120000 });
    if (npm.status === 0) fs.writeFileSync(stamp, lock);
    else console.log(`npm ci failed (${npm.error ? npm.error.code : 'exit ' + npm.status}); using what is installed`);
  }
  if (!installed()) skip('playwright-core is not installed and npm ci could not install it');
  return requireFrom('playwright-core');
}

// Starts a program and resolves with its base address from the line
// `http: listening on http://ADDR:PORT`.
function startService(command, commandArgs) {
  const child = spawn(command, commandArgs, { stdio: ['ignore', 'pipe', 'pipe'] });
  let output = '';
  child.stderr.on('data', (d) => { output += d; });
  const address = new Promise((resolve, reject) => {
    let buffered = '';
    const timer = setTimeout(() => reject(new Error(`no "http: listening on" line within ${WAIT_MS} ms:\n${output}`)), WAIT_MS);
    child.stdout.on('data', (d) => {
      output += d;
      buffered += d;
      const m = /^http: listening on (http:\/\/\S+:\d+)\s*$/m.exec(buffered);
      if (m) { clearTimeout(timer); resolve(m[1]); }
    });
    child.on('exit', (code, signal) => {
      clearTimeout(timer);
      reject(new Error(`the service ended early (${signal || 'exit ' + code}):\n${output}`));
    });
  });
  return { child, address, output: () => output };
}

// Stops the service by its pid and waits (bounded) for its exit status.
function stopService(child) {
  if (child.exitCode !== null || child.signalCode !== null) return Promise.resolve({ code: child.exitCode, signal: child.signalCode });
  return new Promise((resolve) => {
    const timer = setTimeout(() => { process.kill(child.pid, 'SIGKILL'); }, 5000);
    child.once('exit', (code, signal) => { clearTimeout(timer); resolve({ code, signal }); });
    process.kill(child.pid, 'SIGTERM');
  });
}

async function poll(what, fn, timeoutMs = WAIT_MS) {
  const deadline = Date.now() + timeoutMs;
  let last;
  for (let i = 0; i < 200 && Date.now() < deadline; i++) {
    last = await fn();
    if (last.done) return last.value;
    await new Promise((r) => setTimeout(r, 100));
  }
  throw new Error(`${what}: not within ${timeoutMs} ms (last seen: ${JSON.stringify(last && last.value)})`);
}

const failures = [];
function check(ok, what) {
  console.log(`${ok ? 'ok' : 'FAILED'}: ${what}`);
  if (!ok) failures.push(what);
}

// Simulated gateways: the fleet, one gateway's view, its inputs moving, an output written.
async function simulatedFleet(args, browser, base) {
  const context = await browser.newContext({ viewport: { width: 1200, height: 1400 } });
  try {
    const page = await context.newPage();
    page.setDefaultTimeout(WAIT_MS);
    const pageErrors = [];
    const foreign = [];
    page.on('pageerror', (e) => pageErrors.push(String(e)));
    page.on('console', (m) => { if (m.type() === 'error') pageErrors.push(m.text()); });
    page.on('request', (r) => { if (!r.url().startsWith(base + '/')) foreign.push(r.url()); });

    // The fleet at a glance.
    await page.goto(base + '/', { waitUntil: 'load' });
    const names = ['gw1', 'gw2', 'gw3', 'gw4'];
    const fleet = await page.waitForFunction((expected) => {
      const rows = [...document.querySelectorAll('#fleet tbody tr[data-gateway]')];
      const seen = rows.map((r) => [r.dataset.gateway, r.querySelector('[data-field="state"]').textContent.trim()]);
      const online = expected.every((n) => seen.some(([name, st]) => name === n && st === 'online'));
      return online && rows.length === expected.length ? seen : false;
    }, names, { timeout: WAIT_MS }).then((h) => h.jsonValue()).catch(() => null);
    check(fleet !== null, 'the fleet table lists gw1..gw4, each online');
    fs.mkdirSync(args.out, { recursive: true });
    await page.screenshot({ path: path.join(args.out, 'serve-fleet.png'), fullPage: true });
    const fleetHeaders = await page.$$eval('#fleet thead th[scope="col"]', (ths) => ths.map((t) => t.textContent));
    check(fleetHeaders.includes('Rate') && fleetHeaders.includes('Last failure'), 'the fleet table has rate and last failure columns');

    // A gateway's own view, through the link in the table, then its address.
    await page.click(`#fleet a[href="#/gw/${args.gateway}"]`);
    await page.waitForSelector('#gateway-view:not([hidden])');
    check(page.url().endsWith(`#/gw/${args.gateway}`), `the address of the view is #/gw/${args.gateway}`);
    await page.waitForSelector('[data-bit="inputs:0:0"]');
    await page.waitForSelector('[data-bit="outputs:0:0"]');
    check(await page.textContent('#gw-name') === args.gateway, 'the view names its gateway');
    check(await page.$eval('#gw-state', (e) => e.textContent.trim()) === 'online', 'the view shows the gateway online');
    check(await page.$$eval('#gw-identity tr', (rows) => rows.length) > 0, 'the identity is listed');
    check(await page.$$eval('#gw-modules tbody tr', (rows) => rows.length) > 0, 'the modules are listed');

    // Inputs move on screen: the bit grid takes at least two different values within the bound.
    const inputs = () => page.$$eval('#gw-inputs tr[data-byte]', (rows) => rows.map((r) => r.dataset.value).join(' '));
    const first = await inputs();
    const moved = await poll('inputs change on screen', async () => {
      const now = await inputs();
      return { done: now !== first, value: now };
    }).then(() => true, (e) => { console.log(e.message); return false; });
    check(moved, `the inputs change on screen (first ${first})`);
    const pressedMatchesValue = await page.$$eval('#gw-inputs tr[data-byte]', (rows) => rows.every((r) => {
      const buttons = [...r.querySelectorAll('button[data-bit]')];
      const value = buttons.reduce((v, b) => v | ((b.getAttribute('aria-pressed') === 'true') << Number(b.dataset.bit.split(':')[2])), 0);
      return buttons.length === 8 && value === Number(r.dataset.value);
    }));
    check(pressedMatchesValue, 'every input byte row shows its value in its eight bit buttons');
    const plotted = await poll('the plot draws', async () => {
      const drawn = await page.$eval('#plot', (c) => {
        const data = c.getContext('2d').getImageData(0, 0, c.width, c.height).data;
        let coloured = 0;
        for (let i = 0; i < data.length; i += 4) if (data[i + 3] && Math.abs(data[i] - data[i + 2]) > 60) coloured++;
        return coloured;
      });
      const legend = await page.$$eval('#plot-legend li', (items) => items.length);
      return { done: drawn > 50 && legend > 0, value: { drawn, legend } };
    }).then(() => true, (e) => { console.log(e.message); return false; });
    check(plotted, 'the plot of the inputs draws coloured lines with a legend');

    // An output bit pressed on the page arrives at the simulator, as the service reads it back.
    const bit = 'outputs:0:3';
    const wasPressed = await page.getAttribute(`[data-bit="${bit}"]`, 'aria-pressed') === 'true';
    check(await page.$eval(`[data-bit="${bit}"]`, (b) => !b.disabled), 'the output bits of a writable gateway are enabled');
    await page.click(`[data-bit="${bit}"]`);
    const written = await page.waitForSelector('#gw-write-result[data-result="ok"]', { timeout: WAIT_MS }).then(() => true, () => false);
    check(written, `the page reports the write as done (${await page.textContent('#gw-write-result')})`);
    const readBack = await poll('the simulator carries the bit', async () => {
      const r = await fetch(`${base}/api/gateways/${args.gateway}`);
      const g = await r.json();
      const byte = g.outputs && g.outputs.bytes ? g.outputs.bytes[0] : undefined;
      return { done: byte !== undefined && Boolean(byte & 0x08) !== wasPressed, value: g.outputs };
    }).then(() => true, (e) => { console.log(e.message); return false; });
    check(readBack, `GET /api/gateways/${args.gateway} reads outputs byte 0 bit 3 back as ${wasPressed ? 'off' : 'on'}`);
    const shown = await poll('the page shows the bit', async () => {
      const pressed = await page.getAttribute(`[data-bit="${bit}"]`, 'aria-pressed');
      return { done: (pressed === 'true') !== wasPressed, value: pressed };
    }).then(() => true, () => false);
    check(shown, 'the page shows the written bit pressed');

    // A screenshot for the documentation, then a linked view of a gateway that does not exist.
    await page.waitForTimeout(Number(args.settle || 1500));
    const shot = path.join(args.out, 'serve-page.png');
    await page.screenshot({ path: shot, fullPage: true });
    console.log(`screenshot: ${shot}`);
    // Before the unknown gateway, whose 404 the browser logs as an error of its own.
    check(pageErrors.length === 0, `no script errors on the page ${pageErrors.join('; ')}`);
    await page.goto(base + '/#/gw/nosuch', { waitUntil: 'load' });
    check(await page.waitForSelector('#missing-view:not([hidden])').then(() => true, () => false),
          'an unknown gateway in the address says so');
    check(foreign.length === 0, `every request of the page goes to the service ${foreign.join(' ')}`);
  } finally {
    await context.close();
  }
}

// A service that wants a token, with a gateway nobody answers for: the page carries the token
// from its address, shows the gateway offline with its failure by name and its outputs not
// writable, and says what is missing when opened without the token.
async function tokenAndOffline(args, browser, base, token) {
  const context = await browser.newContext({ viewport: { width: 1200, height: 900 } });
  try {
    const page = await context.newPage();
    page.setDefaultTimeout(WAIT_MS);
    await page.goto(`${base}/?token=${token}`, { waitUntil: 'load' });
    const row = await page.waitForFunction(() => {
      const r = document.querySelector('#fleet tr[data-gateway="press1"]');
      const failure = r && r.querySelector('[data-field="last_failure"]').textContent;
      return r && failure !== '—' ? [r.querySelector('[data-field="state"]').textContent.trim(), failure] : false;
    }, null, { timeout: WAIT_MS }).then((h) => h.jsonValue(), () => null);
    check(row !== null && row[0] === 'offline', `with ?token= the fleet lists press1 offline (${row})`);
    check(row !== null && /^ConnectFailed at /.test(row[1]), 'the last failure is shown by name');
    await page.click('#fleet a[href="#/gw/press1"]');
    const hint = await page.waitForSelector('#gw-state .state', { timeout: WAIT_MS })
      .then(() => page.textContent('#gw-outputs-hint'), () => '');
    check(await page.$eval('#gw-state', (e) => e.textContent.trim()).catch(() => '') === 'offline', "the gateway's view shows it offline");
    check(/not writable/.test(hint), 'the outputs of a gateway not marked writable are not offered for writing');
    check(await page.waitForSelector('#connection[data-state="live"]', { timeout: WAIT_MS }).then(() => true, () => false),
          'the event stream is open with the token');

    const bare = await context.browser().newContext();
    try {
      const other = await bare.newPage();
      await other.goto(`${base}/`, { waitUntil: 'load' });
      const notice = await other.waitForSelector('#notice:not([hidden])', { timeout: WAIT_MS })
        .then((n) => n.textContent(), () => '');
      check(/token/.test(notice), `without the token the page says one is needed (${notice})`);
      await other.goto(`${base}/#token=${token}`, { waitUntil: 'load' });
      await other.reload({ waitUntil: 'load' });
      check(await other.waitForSelector('#fleet tr[data-gateway="press1"]', { timeout: WAIT_MS }).then(() => true, () => false),
            'the token also works as #token=');
    } finally {
      await bare.close();
    }
  } finally {
    await context.close();
  }
}

// Runs `scenario` against a program started for it, and stops the program by its pid; the
// service is expected to end with exit 0 on SIGTERM.
async function withService(what, command, commandArgs, expectCleanExit, scenario) {
  const service = startService(command, commandArgs);
  try {
    const base = await service.address;
    console.log(`${what} at ${base} (pid ${service.child.pid})`);
    await scenario(base);
  } catch (e) {
    console.error(e.stack || String(e));
    check(false, `${what}: the run itself`);
  } finally {
    const end = await stopService(service.child);
    if (expectCleanExit && end.code !== 0) {
      check(false, `${what} ends with exit 0 on SIGTERM (${end.signal || 'exit ' + end.code})`);
      console.log(service.output());
    }
  }
}

async function main() {
  const args = parseArgs(process.argv.slice(2));
  if (!fs.existsSync(args.chromium)) skip(`no chromium at ${args.chromium}`);
  const playwright = loadPlaywright(path.resolve(args.deps));
  const browser = await playwright.chromium.launch({
    executablePath: args.chromium, headless: true, timeout: 30000,
    args: ['--no-sandbox', '--disable-gpu', '--disable-dev-shm-usage'],
  });
  try {
    if (args.mock) {
      await withService('the mock', '/usr/bin/python3', [path.join(__dirname, 'mock_serve.py'), '--port', '0'], false,
                        (base) => simulatedFleet(args, browser, base));
    } else {
      await withService('tamrik serve --sim 4', args.tool, ['serve', '--sim', '4', '--http', '127.0.0.1:0'], true,
                        (base) => simulatedFleet(args, browser, base));
      // Port 1 of loopback: a gateway that refuses every connection.
      fs.mkdirSync(args.out, { recursive: true });
      const plant = path.join(args.out, 'token-plant.toml');
      const token = 'page-test-token';
      fs.writeFileSync(plant, `[http]\nlisten = "127.0.0.1:0"\ntoken = "${token}"\n\n` +
                              '[[gateway]]\nname = "press1"\ntcp = "127.0.0.1:1"\ninputs = 100\ntimeout = 200\n');
      await withService('tamrik serve --config', args.tool, ['serve', '--config', plant], true,
                        (base) => tokenAndOffline(args, browser, base, token));
    }
  } finally {
    await browser.close();
  }
  if (failures.length) {
    console.log(`browser test: ${failures.length} failed: ${failures.join('; ')}`);
    process.exit(1);
  }
  console.log('browser test: all passed');
}

main();
