// Browser test of the agent console: zephlo-service runs on a free local port,
// Debian's chromium (driven by playwright-core) opens the console, and frames
// arrive from a real client: zephlo-service-load feeding the session, and, when
// it is built, zephlo-broadcast streaming its test pattern end to end.
//
// Needs: node, `npm ci` in this folder, /usr/bin/chromium, and the programs built
// under $ZEPHLO_BUILD_DIR (default build/release at the top of the repository).
// Screenshots go to $ZEPHLO_ARTIFACTS (default ./artifacts).
import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import { spawn, execFileSync } from 'node:child_process';
import { existsSync, mkdirSync, mkdtempSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import path from 'node:path';
import { fileURLToPath } from 'node:url';
import { chromium } from 'playwright-core';

const here = path.dirname(fileURLToPath(import.meta.url));
const repo = path.resolve(here, '../../../..');
const buildDir = path.resolve(process.env.ZEPHLO_BUILD_DIR || path.join(repo, 'build/release'));
const artifacts = path.resolve(process.env.ZEPHLO_ARTIFACTS || path.join(here, 'artifacts'));
const program = (name, folder) => path.join(buildDir, 'apps', folder, name);
const servicePath = program('zephlo-service', 'service');
const loadPath = program('zephlo-service-load', 'service_load');
const broadcastPath = program('zephlo-broadcast', 'broadcast');
const keychainPath = program('zephlo-keychain', '');
const chromiumPath = process.env.ZEPHLO_CHROMIUM || '/usr/bin/chromium';

const started = [];
let service;
let context;
let scratch;

// Starts a program and keeps it for the final clean-up.
function run(file, args, options = {}) {
  const child = spawn(file, args, { stdio: ['ignore', 'pipe', 'pipe'], ...options });
  child.output = { stdout: '', stderr: '' };
  child.stdout.on('data', (d) => { child.output.stdout += d; });
  child.stderr.on('data', (d) => { child.output.stderr += d; });
  child.exited = new Promise((resolve) => child.on('exit', (code, signal) => resolve({ code, signal })));
  started.push(child);
  return child;
}

async function until(what, fn, ms = 30000) {
  const end = Date.now() + ms;
  for (;;) {
    const value = await fn();
    if (value) return value;
    if (Date.now() > end) throw new Error(`timed out waiting for ${what}`);
    await new Promise((r) => setTimeout(r, 100));
  }
}

async function api(method, route, body) {
  const response = await fetch(`${service.base}${route}`, {
    method,
    headers: { 'Content-Type': 'application/json; charset=utf-8' },
    body: body === undefined ? undefined : JSON.stringify(body),
  });
  const value = await response.json();
  assert.ok(response.ok, `${method} ${route}: ${response.status} ${JSON.stringify(value)}`);
  return value;
}

async function newPage() {
  const page = await context.newPage();
  page.on('pageerror', (e) => { throw e; });
  await page.goto(`${service.base}/`);
  return page;
}

async function frameId(page) {
  return page.locator('#screen').getAttribute('data-frame-id');
}

before(async () => {
  assert.ok(existsSync(servicePath), `${servicePath} is not built`);
  mkdirSync(artifacts, { recursive: true });
  scratch = mkdtempSync(path.join(tmpdir(), 'zephlo-console-test-'));
  const child = run(servicePath, ['--listen', '127.0.0.1:0']);
  const base = await until('the service to listen', () => {
    const m = child.output.stdout.match(/listening on (http:\/\/\S+)/);
    return m && m[1];
  });
  service = { child, base, hostPort: base.replace('http://', '') };
  context = await chromium.launchPersistentContext(path.join(scratch, 'profile'), {
    executablePath: chromiumPath,
    headless: true,
    viewport: { width: 1280, height: 1000 },
    args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
      '--disable-background-networking', '--disable-component-update', '--disable-sync'],
  });
});

after(async () => {
  if (context) await context.close();
  for (const child of started) if (child.exitCode === null && child.signalCode === null) child.kill('SIGTERM');
  await Promise.all(started.map((c) => c.exited));
  if (scratch) rmSync(scratch, { recursive: true, force: true });
});

test('the console lists sessions, creates one and shows the live picture', async () => {
  const session = await api('POST', '/api/1/sessions', {});
  const page = await newPage();
  const row = page.locator(`#sessions tr[data-id="${session.id}"]`);
  await row.waitFor();
  assert.match(await row.innerText(), new RegExp(`${session.code}\\s+pending`));

  // Creating a session from the console selects it.
  const before = await page.locator('#sessions tr').count();
  await page.click('#new-session');
  await until('a new row', async () => (await page.locator('#sessions tr').count()) === before + 1);
  await page.locator('#detail').waitFor();
  assert.equal(await page.locator('#session-state').innerText(), 'pending');

  // Open the first session, activate it, feed it frames.
  await row.click();
  assert.equal(await page.locator('#session-code').innerText(), session.code);
  await page.click('#activate');
  await until('the state to read active', async () => (await page.locator('#session-state').innerText()) === 'active');
  const feeder = run(loadPath, ['--service', service.hostPort, '--session', session.id, '--clients', '1',
    '--fps', '4', '--seconds', '60', '--size', '390x844', '--quality', '0.6']);

  const picture = page.locator('#screen');
  await picture.waitFor({ state: 'visible' });
  await until('the picture to load', () => picture.evaluate((img) => img.complete && img.naturalWidth === 390));
  assert.equal(await picture.evaluate((img) => img.naturalHeight), 844);
  assert.equal(await page.locator('#quality').innerText(), '60');
  assert.notEqual(await page.locator('#fps').innerText(), '–');
  const first = await frameId(page);
  const firstShot = await picture.screenshot();
  await until('a newer frame', async () => (await frameId(page)) !== first);
  await until('the picture to change with the frames', async () => !(await picture.screenshot()).equals(firstShot));
  await page.screenshot({ path: path.join(artifacts, 'console-live.png') });

  // A touch on the picture goes to the session's stream socket (the feeder's).
  await picture.click({ position: { x: 50, y: 80 } });
  await until('the touch to reach the stream socket',
    async () => (await page.locator('#last-event').innerText()) === 'touch → 1 socket');

  feeder.kill('SIGTERM');
  await feeder.exited;
});

const haveBroadcast = existsSync(broadcastPath) && existsSync(keychainPath);
test('a broadcast shows on the console and "End session" ends it', { skip: !haveBroadcast && 'zephlo-broadcast is not built' }, async () => {
  const session = await api('POST', '/api/1/sessions', {});
  await api('PUT', `/api/1/sessions/${session.id}`, { state: 'active' });
  const keychain = path.join(scratch, 'keychain.db');
  execFileSync(keychainPath, ['--keychain', keychain, 'set', 'zephlo.api', service.base]);
  execFileSync(keychainPath, ['--keychain', keychain, 'set', 'zephlo.session', session.id]);
  const broadcast = run(broadcastPath, ['--keychain', keychain, '--stats']);

  const page = await newPage();
  await page.locator(`#sessions tr[data-id="${session.id}"]`).click();
  const picture = page.locator('#screen');
  await picture.waitFor({ state: 'visible', timeout: 60000 });
  await until('the picture to load', () => picture.evaluate((img) => img.complete && img.naturalWidth > 0));
  assert.equal(await page.locator('#session-full-device').innerText(), 'full device on');
  // The test pattern changes every second, and only changed frames are sent.
  const first = await frameId(page);
  const firstShot = await picture.screenshot();
  await until('the test pattern to change', async () => (await frameId(page)) !== first);
  await until('the picture to change', async () => !(await picture.screenshot()).equals(firstShot));
  await page.screenshot({ path: path.join(artifacts, 'console-broadcast.png') });

  await page.click('#end');
  const { code } = await broadcast.exited;
  assert.equal(code, 3, broadcast.output.stderr);
  assert.match(broadcast.output.stderr, /^Broadcast ended: Session ended$/m);
});
