// Opens a talvex-record HTML report in Debian's Chromium (headless, driven by playwright-core) and
// prints what a person sees, a line each, then uses its filters and opens a conversation as a
// person would, printing what each shows, and keeps a screenshot of the unfolded conversation.
//
// usage: node report-check.js REPORT SCREENSHOT [HOST PORT PID]
// Prints:
//   title: TITLE             summary: SUMMARY
//   shown: SHOWN             row: FIRST LINE OF A CONNECTION (each shown one)
//   host HOST: SHOWN         port PORT: SHOWN      process PID: SHOWN     errors only: SHOWN
//   more: SHOWN              (after "Show more", when there is more)
//   opened: TEXT             (the first connection's unfolded exchanges and events, a line each)
//   last: TEXT               (the same of the last connection shown)
//   requests: N              (requests the page made beyond its own file: it needs none)
'use strict';
const { chromium } = require('playwright-core');

const [report, screenshot, host, port, pid] = process.argv.slice(2);

(async () => {
  const browser = await chromium.launch({
    executablePath: '/usr/bin/chromium',
    // As root, in a machine whose network is closed: no sandbox, and none of Chromium's own
    // connections, so that a request the page made would be the page's.
    args: ['--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run', '--disable-background-networking',
           '--disable-component-update', '--disable-sync'],
  });
  try {
    const page = await browser.newPage({ viewport: { width: 1280, height: 1000 } });
    page.setDefaultTimeout(20000);
    let requests = 0;
    page.on('request', (r) => { if (!r.url().startsWith('file://')) requests++; });
    const errors = [];
    page.on('pageerror', (e) => errors.push(e.message));
    await page.goto('file://' + report);
    await page.waitForSelector('#shown');
    const text = async (selector) => (await page.textContent(selector)).trim();
    console.log('title: ' + await page.title());
    console.log('summary: ' + await text('#summary'));
    console.log('shown: ' + await text('#shown'));
    for (const what of await page.$$eval('.conn .what', (all) => all.slice(0, 20).map((e) => e.firstChild.textContent))) {
      console.log('row: ' + what);
    }
    const filter = async (label, selector, value, apply) => {
      await apply(selector, value);
      console.log(label + ': ' + await text('#shown'));
      await apply(selector, '');
    };
    const fill = (selector, value) => page.fill(selector, value);
    if (host !== undefined) await filter('host ' + host, '#f-host', host, fill);
    if (port !== undefined) await filter('port ' + port, '#f-port', port, fill);
    if (pid !== undefined) await filter('process ' + pid, '#f-process', pid, (s, v) => page.selectOption(s, v));
    await page.check('#f-errors');
    console.log('errors only: ' + await text('#shown'));
    await page.uncheck('#f-errors');
    if (await page.isVisible('#more')) {
      await page.click('#more');
      console.log('more: ' + await text('#shown'));
    }
    const unfold = async (row, prefix) => {
      await page.click(row + ' .head');
      await page.$$eval(row + ' .body details', (all) => all.forEach((d) => { d.open = true; }));
      for (const line of await page.$$eval(row + ' .body summary, ' + row + ' .body .event, ' + row + ' .body h3, ' +
                                           row + ' .body pre, ' + row + ' .body .cut', (all) => all.map((e) => e.textContent))) {
        for (const part of line.split('\n')) console.log(prefix + part);
      }
    };
    await unfold('.conn:last-child', 'last: ');
    await page.click('.conn:last-child .head');
    await unfold('.conn:first-child', 'opened: ');
    await page.screenshot({ path: screenshot, fullPage: false });
    console.log('requests: ' + requests);
    for (const e of errors) console.log('page error: ' + e);
  } finally {
    await browser.close();
  }
})().catch((e) => {
  console.error(e);
  process.exit(1);
});
