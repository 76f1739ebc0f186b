// Opens report pages from file:// in the installed chromium, with the network refused, and
// checks what a person would see: nothing leaves the page, no script error or dialog, the
// memory map to scale, the DMA-BUF table sorting on a click, a recording's suspects and its
// holders named by command line, a pair of two builds (both maps on one scale, before above
// after, the changed regions labelled), a recording across a reboot, a leak's verdict and
// groups, a timeline's value on hover, sorting by keyboard, every region named in the page's
// text, a 760 px window and the print layout.
//   node check_page.js CAPTURE.html RECORDING.html HOSTILE.html SCREENSHOT.png BUILDS.html REBOOTED.html LEAK.html
'use strict';
const path = require('path');
const puppeteer = require('puppeteer-core');

const [capturePage, recordingPage, hostilePage, screenshot, buildsPage, rebootedPage, leakPage] = process.argv.slice(2);
const browserPath = process.env.CHROMIUM || '/usr/bin/chromium';
const failures = [];
const fail = (what) => { failures.push(what); console.log('FAIL ' + what); };

// Nothing here may hang: the whole check has a deadline.
setTimeout(() => { console.log('FAIL: the browser check took more than 120 s'); process.exit(1); },
  120000).unref();

// Three regions of the sample's map and their sizes in KB (from its -s report).
const REGIONS = { modem_region: 106496, 'linux,cma': 65536, adsp_region: 10240 };
// Every region the sample's -s report locates.
const ALL_REGIONS = ['sec_region', 'Kernel code', 'Kernel data', 'initrd', 'modem_region', 'adsp_region', 'gpu_region',
  'ramoops', 'linux,cma', 'camera_cma'];

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
  // The same header by keyboard: it takes the focus, and Enter sorts again (the other way).
  const focused = await page.evaluate(() => {
    const th = Array.from(document.querySelectorAll('table.dmabuf th')).find((t) => t.textContent.startsWith('Size'));
    th.focus();
    return document.activeElement === th && th.tabIndex === 0;
  });
  if (!focused) fail('the Size header takes no keyboard focus');
  await page.keyboard.press('Enter');
  const byKey = await sizes();
  if (JSON.stringify(byKey) !== JSON.stringify([...sorted].reverse())) fail('Enter on Size: rows ' + byKey);

  // Every region's name in the page's text (a table cell, not a hover title), in the window
  // and printed.
  const named = async () => page.evaluate((names) => {
    const cells = Array.from(document.querySelectorAll('#regions td')).filter((c) => c.offsetParent !== null)
      .map((c) => c.innerText);
    return names.filter((n) => !cells.includes(n) || !document.body.innerText.includes(n));
  }, ALL_REGIONS);
  let missing = await named();
  if (missing.length) fail('regions not named in the page text: ' + missing);
  await page.emulateMediaType('print');
  missing = await named();
  if (missing.length) fail('regions not named in print: ' + missing);
  const printed = await page.$eval('#memory-map', (m) => m.getBoundingClientRect().width);
  if (!(printed > 300)) fail('the map is not printed: ' + printed + ' px wide');
  await page.emulateMediaType('screen');
}

// A 760 px window: nothing wider than the window, every drawing inside it.
async function checkNarrow(page, name) {
  await page.setViewport({ width: 760, height: 900 });
  const seen = await page.evaluate(() => {
    const width = document.documentElement.clientWidth;
    const over = Array.from(document.querySelectorAll('svg')).filter((s) => s.getBoundingClientRect().right > width + 0.5)
      .map((s) => s.id || s.getAttribute('class'));
    return { width, scroll: document.documentElement.scrollWidth, over };
  });
  if (seen.scroll > seen.width) fail(`${name} at 760 px: the page is ${seen.scroll} px wide`);
  if (seen.over.length) fail(`${name} at 760 px: drawings clipped: ${seen.over}`);
  await page.setViewport({ width: 1200, height: 900 });
}

// The dot at a capture says its value when pointed at.
async function checkHover(page, nth, want) {
  const dots = await page.$$('#timeline-unmapped circle.pt');
  if (dots.length <= nth) return fail('the unmapped timeline has ' + dots.length + ' dots');
  await dots[nth].hover();
  const said = await page.$eval('#timeline-unmapped', (svg) => svg.closest('figure').querySelector('.readout').textContent);
  if (!want.every((w) => said.includes(w))) fail('hover on capture ' + (nth + 1) + ' says: ' + said);
  console.log('hover: ' + said);
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
  // Buffer 6 became unmapped once and stayed: a step, not a slope; and nothing grew.
  const text = await page.$eval('#suspects', (e) => e.textContent);
  if (!text.includes('G:screenshot') || !text.includes('com.example.gallery [69]')) fail('suspects: ' + text);
  const shapes = await page.$$eval('#suspects tbody tr', (rows) => rows.map((r) => r.getAttribute('data-shape')));
  if (JSON.stringify(shapes) !== '["step"]') fail('the step recording\'s groups are ' + shapes);
  const verdict = await page.$eval('#verdict', (e) => e.textContent);
  if (!verdict.startsWith('Nothing grew')) fail('step recording verdict: ' + verdict);
  // The total at the third capture, as its -u report prints it.
  await checkHover(page, 2, ['capture 3', 'uptime 1120 s', '(3047424 bytes)']);
  const title = await page.$eval('#suspects .cmdline', (e) => e.title);
  if (title !== 'com.example.gallery --mode=preview') fail('the holder\'s whole command line on hover: ' + title);
  const growth = await page.$$eval('#growth tbody tr', (rows) => rows.map((r) => r.textContent));
  if (!growth.some((t) => t.includes('leaky'))) fail('growth does not name the exporter leaky: ' + growth);
}

async function checkLeak(page) {
  const verdict = await page.$eval('#verdict', (e) => e.innerText);
  for (const w of ['Growing: 3 buffers named G:leak', '/data/local/tmp/leak_client', 'since capture 2']) {
    if (!verdict.includes(w)) fail('leak verdict lacks ' + w + ': ' + verdict);
  }
  // Three leaked buffers are one row, their inodes on demand.
  const rows = await page.$$eval('#suspects tbody tr', (r) => r.map((x) => [x.getAttribute('data-shape'), x.cells[3].textContent]));
  if (JSON.stringify(rows) !== '[["growing","G:leak"],["step","G:screenshot"]]') fail('leak groups: ' + JSON.stringify(rows));
  const hidden = await page.$eval('#suspects tbody tr details', (d) => !d.innerText.includes('buffer 300'));
  if (!hidden) fail('the group\'s buffers are listed before they are asked for');
  await page.click('#suspects tbody tr summary');
  const shown = await page.$eval('#suspects tbody tr details', (d) => d.innerText);
  if (!shown.includes('buffer 300') || !shown.includes('buffer 302')) fail('the group\'s buffers: ' + shown);
  if (!(await page.$('#timeline-group-0'))) fail('no chart of the growing group');
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

// The lab's build-over-build pair (tests/data/builds): what changed between the two builds.
const CHANGED = {
  before: { modem_region: 'resized' },
  after: { modem_region: 'resized', npu_region: 'added' },
};
const LABELS = ['modem_region resized, -2048 KB', 'npu_region added, 8192 KB'];

async function checkBuilds(page) {
  const seen = await page.evaluate(() => {
    const box = (e) => { const r = e.getBoundingClientRect(); return { x: r.x, y: r.y, w: r.width, h: r.height }; };
    const maps = {};
    for (const side of ['before', 'after']) {
      const svg = document.getElementById('memory-map-' + side);
      if (!svg) continue;
      const regions = {};
      svg.querySelectorAll('rect[data-region]').forEach((r) => {
        regions[r.getAttribute('data-region')] = Object.assign(box(r), {
          change: r.getAttribute('data-change'), stroke: getComputedStyle(r).stroke,
          strokeWidth: getComputedStyle(r).strokeWidth });
      });
      const labels = Array.from(svg.querySelectorAll('text.change-label')).map((t) => Object.assign(box(t), { text: t.textContent }));
      maps[side] = { box: box(svg), regions, labels };
    }
    const ids = Array.from(document.querySelectorAll('[id]')).map((e) => e.id);
    const h2 = Array.from(document.querySelectorAll('h2')).find((h) => h.textContent === 'Reserved memory');
    const next = h2 && h2.nextElementSibling;
    return { maps, ids, first: next ? (next.querySelector('table') || next).id : null };
  });
  const { before, after } = seen.maps;
  if (!before || !after) return fail('builds: the page lacks a map: ' + Object.keys(seen.maps));
  if (before.box.y + before.box.h > after.box.y) fail('builds: the before map is not above the after map');
  const dup = seen.ids.filter((id, i) => seen.ids.indexOf(id) !== i);
  if (dup.length) fail('builds: repeated element ids: ' + dup);
  if (seen.first !== 'region-changes') fail('builds: the reserved section opens with ' + seen.first);
  // One scale: an unchanged region has the same place and width in both maps; modem_region's
  // two widths are in the ratio of its two sizes.
  for (const name of ['adsp_region', 'linux,cma', 'camera_cma']) {
    const a = before.regions[name], b = after.regions[name];
    if (!a || !b || Math.abs(a.x - b.x) > 0.01 || Math.abs(a.w - b.w) > 0.01) {
      fail(`builds: ${name} differs between the maps: ${JSON.stringify([a, b])}`);
    }
  }
  const m0 = before.regions.modem_region, m1 = after.regions.modem_region;
  if (!m0 || !m1 || Math.abs(m1.w - m0.w * 104448 / 106496) > 0.01) fail('builds: modem_region not to scale: ' + JSON.stringify([m0, m1]));
  for (const side of ['before', 'after']) {
    const map = seen.maps[side];
    const changed = {};
    for (const [name, r] of Object.entries(map.regions)) {
      if (r.change) changed[name] = r.change;
      if (r.change && (r.stroke === 'none' || parseFloat(r.strokeWidth) < 1)) fail(`builds: ${side} ${name} is not outlined`);
    }
    if (JSON.stringify(changed) !== JSON.stringify(CHANGED[side])) fail(`builds: ${side} marks ${JSON.stringify(changed)}`);
    // Every label inside its map, none over another.
    for (const l of map.labels) {
      if (l.x < map.box.x - 0.5 || l.x + l.w > map.box.x + map.box.w + 0.5 || l.y + l.h > map.box.y + map.box.h + 0.5) {
        fail(`builds: the label ${l.text} leaves its map`);
      }
    }
    for (const [i, a] of map.labels.entries()) {
      for (const b of map.labels.slice(i + 1)) {
        if (a.x < b.x + b.w && b.x < a.x + a.w && a.y < b.y + b.h && b.y < a.y + a.h) fail(`builds: labels ${a.text} and ${b.text} overlap`);
      }
    }
  }
  const texts = after.labels.map((l) => l.text).sort();
  if (JSON.stringify(texts) !== JSON.stringify(LABELS)) fail('builds: the after map is labelled ' + JSON.stringify(texts));
  console.log('builds: labels ' + JSON.stringify(texts));
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
    await checkHostile(await open(browser, hostilePage, escapes));
    const rec = await open(browser, recordingPage, escapes);
    await checkRecording(rec);
    if (!leakPage) await one.screenshot({ path: screenshot, clip: { x: 0, y: 0, width: 1200, height: 900 } });
    await checkNarrow(one, 'capture');
    await checkNarrow(rec, 'recording');
    if (leakPage) {
      const leak = await open(browser, leakPage, escapes);
      await checkLeak(leak);
      // The README's picture: a leak's page as it opens.
      await leak.screenshot({ path: screenshot, clip: { x: 0, y: 0, width: 1200, height: 900 } });
      await checkNarrow(leak, 'leak');
    }
    if (buildsPage) {
      const builds = await open(browser, buildsPage, escapes);
      await checkBuilds(builds);
      await checkNarrow(builds, 'builds');
    }
    if (rebootedPage) await checkRebooted(await open(browser, rebootedPage, escapes));
  } catch (e) {
    fail('browser: ' + e.message);
  } finally {
    await browser.close();
  }
  if (escapes.length) fail('requests left the page: ' + escapes.join(' '));
  console.log(failures.length ? failures.length + ' failure(s)' : 'browser check passed');
  process.exit(failures.length ? 1 : 0);
})();
