// The simulator's panel in the system's Chromium, against a simulator on the
// real driver (guest-side); prints the delay from a call to the page showing it.
//   node panel.test.mjs PANEL_PORT AGENT_PORT OUTPUT_DIR
import { chromium } from 'playwright-core';
import { mkdtempSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';

const [port, agentPort, outDir] = process.argv.slice(2);
const panel = `http://127.0.0.1:${port}`;
const agent = `http://127.0.0.1:${agentPort}`;
let failures = 0;
const check = (ok, what) => { console.log(`${ok ? 'ok' : 'FAIL'}: ${what}`); if (!ok) failures++; };

// `hmisvc ARGS` where the simulator runs.
async function hmisvc(...args) {
  const res = await fetch(`${agent}/run`, { method: 'POST', body: JSON.stringify(args) });
  return res.json();
}

async function waitForAgent() {
  for (const until = Date.now() + 240_000; Date.now() < until; await new Promise((r) => setTimeout(r, 250)))
    try { return (await (await fetch(`${agent}/token`)).json()).token; } catch { /* the guest is booting */ }
  throw new Error('the simulator did not come up within 240 s');
}

const token = await waitForAgent();
const profile = mkdtempSync(join(tmpdir(), 'hmisvc-panel-'));
const context = await chromium.launchPersistentContext(profile, {
  executablePath: process.env.CHROMIUM || '/usr/bin/chromium',
  headless: true,
  args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
    '--disable-background-networking', '--disable-component-update', '--disable-sync'],
  viewport: { width: 1400, height: 1000 },
});
try {
  var page = context.pages()[0] ?? await context.newPage();
  page.on('pageerror', (e) => check(false, `no script error on the page: ${e.message}`));
  await page.goto(`${panel}/#token=${token}`);
  await page.locator('#link', { hasText: 'live' }).waitFor({ timeout: 10_000 });
  // When the page shows each brightness, by the host's clock.
  await page.evaluate(() => {
    window.shown = {};
    new MutationObserver(() => { window.shown[document.getElementById('bl-level').textContent] = Date.now(); })
      .observe(document.getElementById('bl-level'), { childList: true, characterData: true, subtree: true });
  });

  // An application's call, seen on the page within a second of returning.
  const delays = [], sinceSent = [];
  for (let level = 30; level < 40; level++) {
    const sent = Date.now();
    const { code } = await hmisvc('backlight', 'set', String(level));
    const returned = Date.now();
    const shown = await page.waitForFunction((l) => window.shown[l], String(level), { timeout: 1000 })
      .then((h) => h.jsonValue()).catch(() => null);
    check(code === 0 && shown !== null, `brightness ${level} set by hmisvc is on the page within a second`);
    if (shown !== null) delays.push(Math.max(0, shown - returned)), sinceSent.push(shown - sent);
  }
  const figures = (list) => (list.sort((a, b) => a - b), `median ${list[list.length >> 1]} ms, max ${list[list.length - 1]} ms`);
  console.log(`page showing a call: after the agent saw hmisvc return ${figures(delays)}; after asking the agent ` +
    `(hmisvc's start and run included) ${figures(sinceSent)}; ${delays.length} calls`);
  check(await page.locator('#calls tr', { hasText: 'backlight.SetBrightness' }).first().isVisible(),
    'the call is listed with its method');

  // A value changed on the page, seen by the next call.
  const field = page.locator('[data-key="backlight.brightness"]');
  await field.fill('55');
  await field.press('Enter');
  await page.locator('#bl-level', { hasText: '55' }).waitFor({ timeout: 2000 });
  let r = await hmisvc('backlight', 'get');
  check(r.code === 0 && r.out.trim() === '55', `hmisvc backlight get after the page set 55: ${r.out.trim()}`);

  // Fail, then heal, from the page.
  const row = page.locator('#service-backlight');
  await row.getByRole('button', { name: 'fail' }).click();
  await row.getByText('failing').waitFor({ timeout: 2000 });
  r = await hmisvc('backlight', 'get');
  check(r.code === 1 && /Fail binder call/.test(r.out), `backlight get fails after "fail": ${r.out.trim()}`);
  await row.getByRole('button', { name: 'heal' }).click();
  await row.getByRole('button', { name: 'fail' }).waitFor({ timeout: 2000 });
  r = await hmisvc('backlight', 'get');
  check(r.code === 0 && r.out.trim() === '55', `backlight get answers again after "heal": ${r.out.trim()}`);

  // Without the token, or with another, nothing changes.
  for (const headers of [{}, { 'X-Hmisvc-Token': '0'.repeat(32) }]) {
    const res = await fetch(`${panel}/api/set`, {
      method: 'POST', headers, body: JSON.stringify({ key: 'backlight.brightness', value: 1 }) });
    check(res.status === 403, `a request with ${Object.keys(headers).length ? 'a wrong' : 'no'} token is refused: ${res.status}`);
  }
  r = await hmisvc('backlight', 'get');
  check(r.out.trim() === '55', 'the refused requests changed nothing');

  await hmisvc('beep', 'beep', '1', '2');
  await page.locator('#card-beep.flash').waitFor({ timeout: 2000 }).then(() => check(true, 'a beep flashes'),
    () => check(false, 'a beep flashes'));
  // A fuller picture: a joined network and a setting, through the page.
  await page.locator('#wifi-scan tr').first().getByRole('button', { name: 'join' }).click();
  await page.locator('#wifi-state', { hasText: /^connected/ }).waitFor({ timeout: 2000 });
  const form = page.locator('#settings-form');
  await form.locator('[name=section]').fill('display');
  await form.locator('[name=key]').fill('theme');
  await form.locator('[name=value]').fill('dark');
  await form.getByRole('button').click();
  await page.locator('#settings', { hasText: 'theme' }).waitFor({ timeout: 2000 });
  await page.waitForTimeout(1000);  // the flash fades before the picture
  const shot = join(outDir, 'panel.png');
  await page.screenshot({ path: shot, fullPage: true });
  console.log(`screenshot: ${shot}`);
} catch (e) {
  check(false, e.stack);
  console.log(`the page's last message: ${await page?.locator('#toast').textContent().catch(() => '?')}`);
} finally {
  await context.close();
  rmSync(profile, { recursive: true, force: true });
  await fetch(`${agent}/quit`).catch(() => {});
}
process.exit(failures ? 1 : 0);
