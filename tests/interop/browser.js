// Plays one of the server's files in a headless browser, through the server's own page.
//
// usage: node browser.js URL NAME file|live SCREENSHOT
'use strict';
const { chromium } = require('playwright-core');

const patience = { timeout: 60000 };

async function play(page, name, isLive) {
  const now = () => page.evaluate(() => document.getElementById('video').currentTime);
  const until = (test, time) => page.waitForFunction(test, time, patience);
  const goesOnTo = async (time, what) => {
    await until(t => document.getElementById('video').currentTime > t, time);
    console.log(what, await now(), await page.textContent('#at'));
  };
  const begun = () => until(() => document.getElementById('video').currentTime < 1);
  const seekTo = async time => {
    await page.evaluate(t => {
      const bar = document.getElementById('seek');
      bar.value = t;
      bar.dispatchEvent(new Event('input'));
      bar.dispatchEvent(new Event('change'));
    }, time);
    await begun();
  };

  await page.click(`tr.file:has-text("${name}")`, patience);
  await goesOnTo(1.5, 'plays');
  await seekTo(isLive ? 1 : 20);
  await goesOnTo(2, 'goes on behind a seek');
  if (!isLive) return;
  await page.click('#live');
  await begun();
  await goesOnTo(3, 'goes on live');
}

(async () => {
  const [url, name, kind, screenshot] = process.argv.slice(2);
  const browser = await chromium.launch({
    executablePath: '/usr/bin/chromium',
    args: ['--no-sandbox', '--autoplay-policy=no-user-gesture-required', '--mute-audio'],
  });
  const page = await browser.newPage({ viewport: { width: 1000, height: 900 } });
  const errors = [];
  page.on('pageerror', error => errors.push(error.message));
  page.on('console', message => message.type() === 'error' && errors.push(message.text()));
  await page.exposeFunction('reportError', text => errors.push(text));
  await page.goto(url);
  await page.evaluate(() => {
    const video = document.getElementById('video');
    video.addEventListener('error', () => window.reportError('video: ' + video.error.message));
  });
  await play(page, name, kind === 'live');
  const width = await page.evaluate(() => document.getElementById('video').videoWidth);
  await page.screenshot({ path: screenshot });
  await browser.close();
  if (!width) errors.push('no picture');
  for (const error of errors) console.log('ERROR', error);
  process.exit(errors.length ? 1 : 0);
})().catch(error => {
  console.log('ERROR', error.message);
  process.exit(1);
});
