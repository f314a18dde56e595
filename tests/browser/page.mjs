// Uses the chat page as a person does, in a real browser, against a server with the demonstration
// model: node page.mjs ZYM MODEL CHROMIUM PICTURES
//
// Leaves pictures of the page in the folder PICTURES.

import assert from 'node:assert/strict';
import {readFileSync} from 'node:fs';
import {join} from 'node:path';
import {createRequire} from 'node:module';
import {chromium} from 'playwright-core';
import {startServer} from './server.mjs';

const [zym, model, browserPath, pictures] = process.argv.slice(2);
const axe = readFileSync(createRequire(import.meta.url).resolve('axe-core/axe.min.js'), 'utf8');

const server = await startServer(zym, model, ['--quiet']);
const browser = await chromium.launch({
  executablePath: browserPath,
  args: ['--no-sandbox', '--disable-dev-shm-usage'],
});

async function open(options = {}) {
  const context = await browser.newContext(options);
  const page = await context.newPage();
  page.setDefaultTimeout(120_000);  // tests run side by side
  page.faults = [];
  page.on('pageerror', (fault) => page.faults.push(String(fault)));
  page.on('console', (message) => {
    // What the policy of the page keeps from loading or running is told here, too.
    if (message.type() === 'error' && !/status of (400|503)/.test(message.text())) {
      page.faults.push(message.text());
    }
  });
  await page.goto(server.url);
  await page.waitForFunction(() => document.title !== 'zym');
  // The best token every time: the model's own replies.
  await page.click('#show-settings');
  await page.fill('#temperature', '0');
  await page.click('#close-settings');
  return page;
}

async function ask(page, text) {
  await page.fill('#message', text);
  await page.keyboard.press('Enter');
}

const replies = (page) => page.locator('.assistant .content');
const complete = (page, count) =>
  page.waitForFunction((wanted) =>
    document.querySelectorAll('.assistant[aria-busy="false"]').length === wanted &&
    document.getElementById('stop').hidden, count);

async function hasNoBarriers(page, where) {
  await page.evaluate(axe);
  const {violations} = await page.evaluate(() => globalThis.axe.run());
  assert.deepEqual(violations.map(({id, nodes}) => `${id}: ${nodes[0].html}`), [], where);
}

const picture = (page, name) => page.screenshot({path: join(pictures, `${name}.png`)});

async function conversation() {
  const page = await open({colorScheme: 'light'});
  await ask(page, 'What is the capital of Canada?');
  await complete(page, 1);
  assert.equal(await replies(page).textContent(), 'The capital of Canada is Ottawa.\n');
  assert.match(await page.locator('.assistant .note').textContent(), /^\d+ tokens, [\d.]+ tokens\/s/);
  assert.match(await page.textContent('#context-use'), /^\d+ \/ [\d,]+ tokens$/);
  await hasNoBarriers(page, 'conversation');
  await picture(page, 'light');

  // Retry: another reply takes the place of the last.
  await page.click('text=Retry');
  await complete(page, 1);
  assert.equal(await replies(page).textContent(), 'The capital of Canada is Ottawa.\n');

  // Edit: the message and what follows it are replaced.
  await page.click('.user >> text=Edit');
  assert.equal(await page.inputValue('#message'), 'What is the capital of Canada?');
  await ask(page, 'Who are you?');
  await complete(page, 1);
  assert.equal(await page.locator('.user').count(), 1);
  assert.equal(await page.locator('.user .content').textContent(), 'Who are you?');

  // What was said is there after a reload.
  const reply = await replies(page).textContent();
  await page.reload();
  assert.equal(await replies(page).textContent(), reply);
  await ask(page, 'Hello!');
  await complete(page, 2);

  // A second conversation, and back to the first.
  await page.click('#new-conversation');
  assert.equal(await page.locator('#messages > li').count(), 0);
  await page.click('#conversation-list >> text=Who are you?');
  assert.equal(await page.locator('#messages > li').count(), 4);
  assert.deepEqual(page.faults, []);
  await page.context().close();
}

// No mark of an end is ever chosen: replies come until they are stopped.
async function makeEndless(page) {
  const bias = {};
  for (const text of ['<|im_end|>', '<|endoftext|>']) {
    const answer = await fetch(`${server.url}/tokenize`, {
      method: 'POST',
      body: JSON.stringify({text, special: true}),
    });
    const {tokens} = await answer.json();
    if (tokens.length === 1) {
      bias[tokens[0]] = -100;
    }
  }
  await page.route('**/v1/chat/completions', (route) => route.continue({
    postData: JSON.stringify(
      {...route.request().postDataJSON(), max_tokens: 6000, logit_bias: bias}),
  }));
}

async function stopsAReply() {
  const page = await open();
  await makeEndless(page);
  await ask(page, 'Tell me a story.');
  // It streams: the page has a beginning of the reply while the rest is still to come.
  await page.waitForFunction(() =>
    document.querySelector('.assistant .content')?.textContent.length > 20);
  await page.click('#stop');
  await complete(page, 1);
  assert.equal(await page.locator('.assistant .note').textContent(), 'stopped');
  const text = await replies(page).textContent();
  assert.ok(text.length > 20);
  await page.reload();
  assert.equal(await replies(page).textContent(), text);
  assert.deepEqual(page.faults, []);
  await page.context().close();
}

async function tellsWhatIsWrong() {
  const page = await open();
  await page.click('#show-settings');
  await page.fill('#temperature', '0.5');
  await page.fill('#max-tokens', '5');
  await page.click('#close-settings');
  await ask(page, 'Hello!');
  await complete(page, 1);
  await page.route('**/v1/chat/completions', (route) =>
    route.fulfill({status: 503, json: {error: {message: 'Busy.'}}}));
  await ask(page, 'And another thing');
  await page.waitForFunction(() => document.getElementById('fault').textContent === 'Busy.');
  // The message is still there and can be sent once more.
  await page.unroute('**/v1/chat/completions');
  await page.click('text=Retry');
  await complete(page, 2);
  assert.equal(await page.textContent('#fault'), '');
  assert.deepEqual(page.faults, []);
  await page.context().close();
}

// What a model writes must not become part of the page but for its layout.
async function modelTextStaysText() {
  const page = await open();
  const text = '<img src="x" onerror="document.title=1"><script>document.title=1</script>\n\n' +
    '[link](javascript:document.title=1) ![picture](http://127.0.0.1:9/x.png)\n\n' +
    '<style>body { display: none }</style><form action="http://127.0.0.1:9"><input></form>';
  const chunk = {choices: [{index: 0, delta: {content: text}, finish_reason: 'stop'}]};
  await page.route('**/v1/chat/completions', (route) => route.fulfill({
    contentType: 'text/event-stream',
    body: `data: ${JSON.stringify(chunk)}\n\ndata: [DONE]\n\n`,
  }));
  await ask(page, 'Do something bad.');
  await complete(page, 1);
  const shown = await replies(page).evaluate((element) => ({
    kinds: [...element.querySelectorAll('*')].map(({localName}) => localName).sort(),
    links: [...element.querySelectorAll('a')].map(({href}) => href),
  }));
  assert.deepEqual(shown.links, ['http://127.0.0.1:9/x.png']);
  assert.ok(shown.kinds.every((kind) => ['p', 'a'].includes(kind)), shown.kinds.join());
  assert.match(await page.title(), /demo/);
  assert.deepEqual(page.faults, []);
  await page.context().close();
}

async function looksRightElsewhere() {
  for (const [name, options] of [
    ['dark', {colorScheme: 'dark'}],
    ['phone', {viewport: {width: 375, height: 700}, hasTouch: true, isMobile: true}],
  ]) {
    const page = await open(options);
    await page.fill('#message', 'Who are you?');
    await page.click('#send');
    await complete(page, 1);
    await hasNoBarriers(page, name);
    await picture(page, name);
    await page.click('#show-settings');
    await hasNoBarriers(page, `${name}, settings`);
    await page.keyboard.press('Escape');
    if (name === 'phone') {
      await page.click('#show-list');
      await hasNoBarriers(page, 'list');
    }
    const width = await page.evaluate(() => document.documentElement.scrollWidth - innerWidth);
    assert.equal(width, 0, `${name}: scrolls sideways`);
    assert.deepEqual(page.faults, []);
    await page.context().close();
  }
}

try {
  for (const step of [conversation, stopsAReply, tellsWhatIsWrong, modelTextStaysText,
                      looksRightElsewhere]) {
    console.log(step.name);
    await step();
  }
} finally {
  await browser.close();
  assert.equal(await server.stop(), 0);
}
