// Opens report pages from file:// in the installed chromium, with the network refused, and
// checks what a person would see: nothing leaves the page, no script error or dialog, the
// memory map to scale, the DMA-BUF table sorting on a click, a recording's suspects and its
// holders named by command line, a recording across a reboot.
//   node check_page.js CAPTURE.html RECORDING.html HOSTILE.html SCREENSHOT.png REBOOTED.html
'use strict';
const path = require('path');
const puppeteer = require('puppeteer-core');

const [capturePage, recordingPage, hostilePage, screenshot, rebootedPage] = process.argv.slice(2);
const browserPath = process.env.CHROMIUM || '/usr/bin/chromium';
const failures = [];
const fail = (what) => { failures.push(what); console.log('FAIL ' + what); };

// Nothing here may hang: the whole check has a deadline.
setTimeout(() => { console.log('FAIL: the browser check took more than 120 s'); process.exit(1); },
  120000).unref();

// Three regions of the sample's map and their sizes in KB (from its -s report).
const REGIONS = { modem_region: 106496, 'linux,cma': 65536, adsp_region: 10240 };

async function open(browser, file, escapes) {
  const page = await browser.newPage();
  await page.setViewport({ width: 1200, height: 900 });
  await page.setRequestInterception(true);
  page.on('request', (req) => {
    if (req.url().startsWith('file:')) return req.continue();
    escapes.push(req.url());
    return req.abort();
  });
  page.on('pageerror', (e) => fail(path.basename(file) + ': script error: ' + e.message));
  page.on('console', (m) => { if (m.type() === 'error') fail(path.basename(file) + ': console error: ' + m.text()); });
  page.on('dialog', async (d) => { fail(path.basename(file) + ': a dialog opened: ' + d.message()); await d.dismiss(); });
  await page.goto('file://' + path.resolve(file), { waitUntil: 'load', timeout: 30000 });
  return page;
}

async function checkCapture(page) {
  const widths = await page.evaluate((names) => {
    const out = {};
    for (const n of names) {
      const r = document.querySelector('#memory-map rect[data-region="' + CSS.escape(n) + '"]');
      out[n] = r ? r.getBoundingClientRect().width : null;
    }
    return out;
  }, Object.keys(REGIONS));
  const [a, b, c] = Object.keys(REGIONS);
  for (const [x, y] of [[a, b], [a, c], [b, c]]) {
    if (widths[x] === null || widths[y] === null) { fail('no map rectangle for ' + x + ' or ' + y); continue; }
    const expected = widths[y] * REGIONS[x] / REGIONS[y];
    if (Math.abs(widths[x] - expected) > 1) {
      fail(`map: ${x} is ${widths[x]} px, ${y} ${widths[y]} px: not in the ratio ${REGIONS[x]}:${REGIONS[y]}`);
    }
  }
  console.log('map widths ' + JSON.stringify(widths));

  const sizes = async () => page.$$eval('table.dmabuf tbody tr', (rows) => {
    const head = Array.from(rows[0].closest('table').tHead.rows[0].cells).map((c) => c.textContent);
    const col = head.findIndex((t) => t.startsWith('Size'));
    return rows.map((r) => Number(r.cells[col].textContent));
  });
  const before = await sizes();
  await page.evaluate(() => {
    Array.from(document.querySelectorAll('table.dmabuf th')).find((t) => t.textContent.startsWith('Size')).click();
  });
  const after = await sizes();
  const sorted = [...before].sort((x, y) => x - y);
  if (JSON.stringify(after) !== JSON.stringify(sorted)) fail('size click: rows ' + after + ', not ' + sorted);
  if (JSON.stringify(before) === JSON.stringify(sorted)) fail('the table was sorted by size already: the click proved nothing');
}

async function checkHostile(page) {
  // Device text shows as text: the hostile process names are on the page as characters.
  const shown = await page.evaluate(() => document.body.innerText);
  for (const name of ['<script>alert(1)</script>', '"><img src=x onerror=alert(2)>', '<img src=x onerror=alert(4)>']) {
    if (!shown.includes(name)) fail('the process name ' + name + ' is not shown as text');
  }
  const titles = await page.$$eval('.cmdline', (spans) => spans.map((e) => e.title));
  if (!titles.includes('<img src=x onerror=alert(4)> "><b>x</b>')) fail('command line titles: ' + JSON.stringify(titles));
  const injected = await page.evaluate(() => document.querySelectorAll('img, script:not(:last-of-type)').length);
  if (injected) fail(injected + ' element(s) made from device text');
}

async function checkRecording(page) {
  const text = await page.$eval('#suspects', (e) => e.textContent);
  if (!/buffer 6 \(G:screenshot\)/.test(text) || !text.includes('com.example.gallery [69]')) fail('suspects: ' + text);
  const title = await page.$eval('#suspects .cmdline', (e) => e.title);
  if (title !== 'com.example.gallery --mode=preview') fail('the holder\'s whole command line on hover: ' + title);
  const growth = await page.$$eval('#growth tbody tr', (rows) => rows.map((r) => r.textContent));
  if (!growth.some((t) => t.includes('leaky'))) fail('growth does not name the exporter leaky: ' + growth);
}

async function checkRebooted(page) {
  const said = await page.$eval('#reboots', (e) => e.textContent);
  if (!said.includes('rebooted between capture-0003 and capture-0004')) fail('the reboot is not named: ' + said);
  if (!(await page.$('#within-boot'))) fail('the suspects do not say they are of the last boot');
  // Every line and mark of a timeline lies right of its axis (drawn at x = 70).
  const left = await page.$$eval('svg.timeline path', (paths) => paths.map((p) => p.getBBox().x).filter((x) => x < 70));
  if (left.length) fail('timeline drawn left of the axis: ' + left);
  const marks = await page.$$eval('svg.timeline path.reboot', (p) => p.length);
  if (!marks) fail('no reboot mark on the timelines');
}

(async () => {
  const escapes = [];
  const browser = await puppeteer.launch({
    executablePath: browserPath,
    headless: true,
    timeout: 30000,
    protocolTimeout: 30000,
    args: ['--no-sandbox', '--disable-gpu', '--proxy-server=127.0.0.1:9',
      '--host-resolver-rules=MAP * ~NOTFOUND', '--no-first-run', '--disable-background-networking'],
  });
  try {
    const one = await open(browser, capturePage, escapes);
    await checkCapture(one);
    await one.screenshot({ path: screenshot, clip: { x: 0, y: 0, width: 1200, height: 900 } });
    await checkHostile(await open(browser, hostilePage, escapes));
    const rec = await open(browser, recordingPage, escapes);
    await checkRecording(rec);
    await checkRebooted(await open(browser, rebootedPage, escapes));
  } catch (e) {
    fail('browser: ' + e.message);
  } finally {
    await browser.close();
  }
  if (escapes.length) fail('requests left the page: ' + escapes.join(' '));
  console.log(failures.length ? failures.length + ' failure(s)' : 'browser check passed');
  process.exit(failures.length ? 1 : 0);
})();
