// Drives the dashboard page in headless Chromium for the web case of cli_diag_test.cpp.
//
// usage: node web_page_check.mjs CHROMIUM URL
//
// Expects the robot of the C++ test: beta/battery at ERROR, zeta/motor at WARN with a message
// that is markup, alpha/imu at OK that falls silent. Prints "ready for the live report" once
// the page shows them, then waits for gamma/live (ERROR) to appear without a reload.
// Exit 0 passed, 1 failed (the reason on stderr), 77 skipped (Chromium or puppeteer-core
// cannot be had here; the reason on stdout).
const [chromium, url] = process.argv.slice(2);
const XSS = '<img src=x onerror=alert(1)>';
const TIMEOUT_MS = 40000;

function skip(reason) {
  console.log('SKIPPED: ' + reason);
  process.exit(77);
}

function check(condition, what, detail) {
  if (!condition) throw new Error(what + (detail === undefined ? '' : ': ' + JSON.stringify(detail)));
}

let puppeteer;
try {
  puppeteer = (await import('puppeteer-core')).default;
} catch (error) {
  skip('puppeteer-core is not installed (npm ci at the top of the tree): ' + error.message);
}

let browser;
try {
  browser = await puppeteer.launch({
    executablePath: chromium,
    headless: true,
    pipe: true,  // Chromium ends with this process, however it ends
    args: ['--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
           '--disable-background-networking', '--disable-component-update', '--disable-sync'],
  });
} catch (error) {
  skip('Chromium cannot start: ' + error.message.split('\n')[0]);
}

// What the health table shows, top to bottom.
const rows = () => Array.from(document.querySelectorAll('#health-rows tr')).map((row) => ({
  name: row.querySelector('td.name').textContent,
  level: row.querySelector('td.level').textContent,
  message: row.querySelector('td.message').textContent,
  stale: row.classList.contains('is-stale'),
}));

const watchdog = setTimeout(() => {
  console.error('FAILED: no verdict within ' + TIMEOUT_MS * 2 + ' ms');
  process.exit(1);
}, TIMEOUT_MS * 2);

let status = 0;
try {
  const page = await browser.newPage();
  const problems = [];
  page.on('pageerror', (error) => problems.push('page error: ' + error.message));
  page.on('dialog', (dialog) => {
    problems.push('a dialog opened: ' + dialog.message());
    dialog.dismiss();
  });
  page.setDefaultTimeout(TIMEOUT_MS);
  await page.setViewport({ width: 1280, height: 800 });
  await page.goto(url);
  await page.evaluate(() => { window.loadedOnce = true; });

  // A page opened late shows the robot's state at once, worst first, then by name.
  await page.waitForFunction(() => document.querySelectorAll('#health-rows tr').length >= 3);
  let shown = await page.evaluate(rows);
  check(JSON.stringify(shown.map((row) => [row.level, row.name])) ===
        JSON.stringify([['ERROR', 'beta/battery'], ['WARN', 'zeta/motor'], ['OK', 'alpha/imu']]),
        'rows worst first, then by name', shown);

  // Markup from the robot stays text: no element is made from it, no script runs.
  check(shown[1].message === XSS, 'the message shown as it was sent', shown[1].message);
  check(await page.evaluate(() => document.querySelectorAll('img').length) === 0, 'no <img> element');

  // The name filter (a regular expression) and the level toggles.
  await page.type('#name-filter', '^(alpha|zeta)');
  await page.waitForFunction(() => document.querySelectorAll('#health-rows tr').length === 2);
  await page.click('.toggle[data-show="1"]');
  await page.waitForFunction(() => document.querySelectorAll('#health-rows tr').length === 1);
  shown = await page.evaluate(rows);
  check(shown[0].name === 'alpha/imu', 'filtered to the OK row', shown);
  await page.click('.toggle[data-show="1"]');
  await page.$eval('#name-filter', (input) => {
    input.value = '';
    input.dispatchEvent(new Event('input'));
  });

  // The timeline of the ERROR reporter ends in the ERROR colour.
  await page.waitForFunction(() => document.querySelectorAll('#health-rows tr').length === 3);
  const lastPixel = await page.$eval('#health-rows tr canvas', (canvas) =>
    Array.from(canvas.getContext('2d').getImageData(canvas.width - 1, 1, 1, 1).data));
  check(lastPixel.join() === '248,81,73,255', 'timeline drawn in the ERROR colour', lastPixel);

  // A reporter that falls silent is marked stale.
  await page.waitForFunction(() => Array.from(document.querySelectorAll('#health-rows tr'))
    .some((row) => row.querySelector('td.name').textContent === 'alpha/imu' &&
                   row.classList.contains('is-stale')));

  // A new reporter appears live, in its place, without a reload.
  console.log('ready for the live report');
  await page.waitForFunction(() => document.querySelectorAll('#health-rows tr').length >= 4);
  shown = await page.evaluate(rows);
  check(JSON.stringify(shown.map((row) => row.name)) ===
        JSON.stringify(['beta/battery', 'gamma/live', 'zeta/motor', 'alpha/imu']),
        'the live report in order', shown);
  check(await page.evaluate(() => window.loadedOnce === true), 'the page was not reloaded');
  check(await page.$eval('#connection', (node) => node.textContent) === 'live', 'status live');

  // The inspector answers from the server, as text.
  await page.type('#envelope', '{"title":"t","guid":"' + XSS + '"}');
  await page.click('#inspect');
  await page.waitForSelector('.verdict');
  check(await page.$eval('.verdict', (node) => node.textContent) === 'invalid envelope', 'verdict');
  check(await page.evaluate(() => document.querySelectorAll('img').length) === 0, 'still no <img>');

  check(problems.length === 0, 'no page errors or dialogs', problems);
  console.log('page checks passed');
} catch (error) {
  console.error('FAILED: ' + error.message);
  status = 1;
} finally {
  clearTimeout(watchdog);
  await browser.close();
}
process.exit(status);
