import assert from 'node:assert/strict';
import { test } from 'node:test';
import Anthropic from '@anthropic-ai/sdk';
import {
  assertCancels, endless, hello, lookUpSchema, toolsUrl, url, withoutTools,
} from './server.mjs';

const options = { apiKey: 'none', maxRetries: 0 };
const client = new Anthropic({ ...options, baseURL: url });

const model = (await client.models.list()).data[0].id;
const messages = [{ role: 'user', content: 'Hello' }];
// Penalties are no part of the interface, but taken.
const asked = { model, messages, max_tokens: 100, temperature: 0, presence_penalty: 0 };

test('a message is answered, and not read twice', async () => {
  await client.messages.create(asked);
  const message = await client.messages.create(asked);
  assert.equal(message.content[0].text, hello);
  assert.equal(message.stop_reason, 'end_turn');
  assert.ok(message.usage.cache_read_input_tokens > 0);
});

test('a message streams', async () => {
  const stream = client.messages.stream(asked);
  let text = '';
  stream.on('text', (piece) => {
    text += piece;
  });
  const message = await stream.finalMessage();
  assert.equal(text, hello);
  assert.equal(message.content[0].text, hello);
  assert.equal(message.stop_reason, 'end_turn');
  assert.ok(message.usage.output_tokens > 5);
});

test('a stream can be given up', async () => {
  const settings = { ...asked, ...await endless() };
  await assertCancels(assert, async () => {
    const stream = client.messages.stream(settings);
    stream.on('text', () => stream.abort());
    await assert.rejects(stream.finalMessage(), Anthropic.APIUserAbortError);
  });
  assert.equal((await client.messages.create(asked)).content[0].text, hello);
});

test('limits and stop strings are told', async () => {
  const short = await client.messages.create({ ...asked, max_tokens: 3 });
  assert.equal(short.stop_reason, 'max_tokens');
  const stopped = await client.messages.create({ ...asked, stop_sequences: [' tiny'] });
  assert.equal(stopped.stop_reason, 'stop_sequence');
  assert.equal(stopped.stop_sequence, ' tiny');
});

test('tokens are counted', async () => {
  const { input_tokens: count } = await client.messages.countTokens({ model, messages });
  const message = await client.messages.create(asked);
  assert.equal(message.usage.input_tokens + message.usage.cache_read_input_tokens, count);
});

test('what cannot be honoured is a typed error', async () => {
  await assert.rejects(client.messages.create({ ...asked, temperature: 9 }), (error) => {
    assert.ok(error instanceof Anthropic.BadRequestError);
    assert.equal(error.error.error.type, 'invalid_request_error');
    assert.match(error.message, /temperature/);
    return true;
  });
  await assert.rejects(client.messages.create({ ...asked, model: 'another' }),
    Anthropic.NotFoundError);
});

test('tools are called', { skip: withoutTools }, async () => {
  const withTools = new Anthropic({ ...options, baseURL: toolsUrl });
  const toolsModel = (await withTools.models.list()).data[0].id;
  const settings = {
    model: toolsModel,
    messages,
    max_tokens: 400,
    tools: [{ name: 'look_up', input_schema: lookUpSchema }],
    tool_choice: { type: 'any', disable_parallel_tool_use: true },
  };
  const message = await withTools.messages.create(settings);
  assert.equal(message.stop_reason, 'tool_use');
  const call = message.content.find((block) => block.type === 'tool_use');
  assert.equal(typeof call.input.exact, 'boolean');
  const streamed = await withTools.messages.stream(settings).finalMessage();
  const other = streamed.content.find((block) => block.type === 'tool_use');
  assert.equal(typeof other.input.exact, 'boolean');
  const next = await withTools.messages.create({
    ...settings,
    max_tokens: 5,
    tool_choice: { type: 'none' },
    messages: [
      ...messages, { role: 'assistant', content: message.content },
      {
        role: 'user',
        content: [{ type: 'tool_result', tool_use_id: call.id, content: 'found' }],
      },
    ],
  });
  assert.notEqual(next.stop_reason, 'tool_use');
});
