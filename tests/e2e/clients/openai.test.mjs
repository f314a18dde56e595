import assert from 'node:assert/strict';
import { test } from 'node:test';
import OpenAI from 'openai';
import { zodResponseFormat } from 'openai/helpers/zod';
import { z } from 'zod';
import {
  assertCancels, assertWord, endless, greedy, hello, lookUpSchema, toolsUrl, url, withoutTools,
  wordSchema,
} from './server.mjs';

const options = { apiKey: 'none', maxRetries: 0 };
const client = new OpenAI({ ...options, baseURL: `${url}/v1` });
const withTools = new OpenAI({ ...options, baseURL: `${toolsUrl || url}/v1` });

const model = (await client.models.list()).data[0].id;
const toolsModel = (await withTools.models.list()).data[0].id;
const messages = [{ role: 'user', content: 'Hello' }];
const chat = { model, messages, ...greedy };
const tools = [{ type: 'function', function: { name: 'look_up', parameters: lookUpSchema } }];

test('models are listed and found', async () => {
  assert.equal((await client.models.retrieve(model)).id, model);
  await assert.rejects(client.models.retrieve('another'), OpenAI.NotFoundError);
});

test('a chat is answered, and not read twice', async () => {
  await client.chat.completions.create(chat);
  const reply = await client.chat.completions.create(chat);
  assert.equal(reply.choices[0].message.content, hello);
  assert.equal(reply.choices[0].finish_reason, 'stop');
  assert.equal(reply.usage.total_tokens, reply.usage.prompt_tokens + reply.usage.completion_tokens);
  assert.ok(reply.usage.prompt_tokens_details.cached_tokens > 0);
});

test('an answer that is awaited whole can be given up', async () => {
  const settings = { ...chat, ...await endless() };
  await assertCancels(assert, async () => {
    const controller = new AbortController();
    const reply = client.chat.completions.create(settings, { signal: controller.signal });
    setTimeout(() => controller.abort(), 300);
    await assert.rejects(reply, OpenAI.APIUserAbortError);
  });
});

test('a chat streams', async () => {
  const stream = client.chat.completions.stream({
    ...chat, stream_options: { include_usage: true },
  });
  let text = '';
  let pieces = 0;
  stream.on('content', (piece) => {
    text += piece;
    ++pieces;
  });
  const reply = await stream.finalChatCompletion();
  assert.equal(text, hello);
  assert.ok(pieces > 5, 'in pieces');
  assert.equal(reply.choices[0].message.content, hello);
  assert.ok((await stream.totalUsage()).completion_tokens > 5);
});

test('a stream can be given up', async () => {
  const settings = { ...chat, ...await endless(), stream: true };
  await assertCancels(assert, async () => {
    const stream = await client.chat.completions.create(settings);
    for await (const chunk of stream) {
      if (chunk.choices[0]?.delta.content) {
        break;
      }
    }
    assert.ok(stream.controller.signal.aborted);
  });
  const reply = await client.chat.completions.create(chat);
  assert.equal(reply.choices[0].message.content, hello);
});

test('several choices, limits, stop strings and log-probabilities', async () => {
  const reply = await client.chat.completions.create({
    ...chat, n: 2, max_completion_tokens: 3, logprobs: true, top_logprobs: 2,
  });
  assert.equal(reply.choices.length, 2);
  for (const choice of reply.choices) {
    assert.equal(choice.finish_reason, 'length');
    const spelt = choice.logprobs.content.map((token) => token.token).join('');
    assert.equal(spelt, choice.message.content);
    assert.equal(choice.logprobs.content[0].top_logprobs.length, 2);
  }
  const stopped = await client.chat.completions.create({ ...chat, stop: [' tiny'] });
  assert.equal(stopped.choices[0].message.content, 'Hello! I am a');
});

test('an answer follows a schema', async () => {
  const reply = await client.chat.completions.create({
    model,
    messages,
    response_format: {
      type: 'json_schema', json_schema: { name: 'word', strict: true, schema: wordSchema },
    },
  });
  assertWord(assert, JSON.parse(reply.choices[0].message.content));
  const parsed = await client.chat.completions.parse({
    model,
    messages,
    response_format: zodResponseFormat(
      z.object({ word: z.enum(['red', 'blue']), fine: z.boolean() }), 'word'),
  });
  assertWord(assert, parsed.choices[0].message.parsed);
});

test('what cannot be honoured is a typed error', async () => {
  const wrong = (fields) => client.chat.completions.create({ ...chat, ...fields });
  await assert.rejects(wrong({ temperature: 9 }), (error) => {
    assert.ok(error instanceof OpenAI.BadRequestError);
    assert.equal(error.param, 'temperature');
    return true;
  });
  await assert.rejects(wrong({ model: 'another' }), OpenAI.NotFoundError);
  await assert.rejects(
    wrong({ messages: [{ role: 'user', content: 'long '.repeat(30000) }], stream: true }),
    (error) => error instanceof OpenAI.BadRequestError && error.code === 'context_length_exceeded');
  await assert.rejects(
    wrong({
      messages: [{
        role: 'user', content: [{ type: 'image_url', image_url: { url: 'https://example.com/a' } }],
      }],
    }),
    (error) => error.param === 'messages[0].content[0].type');
});

test('a text goes on', async () => {
  const prompt = '<|im_start|>user\nHello<|im_end|>\n<|im_start|>assistant\n';
  const settings = { model, prompt, max_tokens: 60, ...greedy };
  const whole = await client.completions.create(settings);
  assert.equal(whole.choices[0].text, hello);
  let text = '';
  for await (const chunk of await client.completions.create({ ...settings, stream: true })) {
    text += chunk.choices[0]?.text ?? '';
  }
  assert.equal(text, hello);
});

test('a response', async () => {
  const asked = { model, input: 'Hello', ...greedy };
  const whole = await client.responses.create(asked);
  assert.equal(whole.output_text, hello);
  assert.equal(whole.status, 'completed');
  assert.ok(whole.usage.input_tokens_details.cached_tokens > 0, 'the chats above began alike');
  const stream = client.responses.stream(asked);
  let text = '';
  stream.on('response.output_text.delta', (event) => {
    text += event.delta;
  });
  assert.equal((await stream.finalResponse()).output_text, hello);
  assert.equal(text, hello);
  const formed = await client.responses.create({
    model,
    input: 'Hello',
    text: { format: { type: 'json_schema', name: 'word', schema: wordSchema, strict: true } },
  });
  assertWord(assert, JSON.parse(formed.output_text));
  await assert.rejects(
    client.responses.create({ ...asked, previous_response_id: 'resp_1' }),
    (error) => error.param === 'previous_response_id');
});

test('tools are called', { skip: withoutTools }, async () => {
  const asked = { model: toolsModel, messages, tools, tool_choice: 'required' };
  const reply = await withTools.chat.completions.create({ ...asked, parallel_tool_calls: false });
  assert.equal(reply.choices[0].finish_reason, 'tool_calls');
  const [call] = reply.choices[0].message.tool_calls;
  assert.equal(call.function.name, 'look_up');
  assert.equal(typeof JSON.parse(call.function.arguments).exact, 'boolean');

  const stream = withTools.chat.completions.stream({
    ...asked, tool_choice: { type: 'function', function: { name: 'look_up' } },
  });
  const [streamed] = (await stream.finalChatCompletion()).choices[0].message.tool_calls;
  assert.equal(typeof JSON.parse(streamed.function.arguments).exact, 'boolean');

  const next = await withTools.chat.completions.create({
    model: toolsModel,
    messages: [
      ...messages, reply.choices[0].message,
      { role: 'tool', tool_call_id: call.id, content: 'found' },
    ],
    tools,
    tool_choice: 'none',
    max_tokens: 5,
  });
  assert.equal(next.choices[0].message.tool_calls, undefined);
});

test('tools are called in a response', { skip: withoutTools }, async () => {
  const asked = {
    model: toolsModel,
    input: 'Hello',
    tools: [{ type: 'function', name: 'look_up', parameters: lookUpSchema, strict: true }],
    tool_choice: 'required',
    parallel_tool_calls: false,
  };
  const response = await withTools.responses.stream(asked).finalResponse();
  const call = response.output.find((item) => item.type === 'function_call');
  assert.equal(typeof JSON.parse(call.arguments).exact, 'boolean');
  const next = await withTools.responses.create({
    ...asked,
    tool_choice: 'none',
    max_output_tokens: 5,
    input: [
      { role: 'user', content: 'Hello' }, ...response.output,
      { type: 'function_call_output', call_id: call.call_id, output: 'found' },
    ],
  });
  assert.ok(['completed', 'incomplete'].includes(next.status));
});

test('reasoning stands apart', { skip: withoutTools }, async () => {
  const reply = await withTools.chat.completions.create({
    model: toolsModel, messages, reasoning_effort: 'high', max_tokens: 8,
    logit_bias: { 1: -100, 2: -100, 4: -100 },
  });
  assert.ok(reply.choices[0].message.reasoning_content.length > 0);
  assert.equal(reply.usage.completion_tokens_details.reasoning_tokens, 8);
});

test('a model without tools says so', async () => {
  await assert.rejects(
    client.chat.completions.create({ ...chat, tools }), (error) => error.param === 'tools');
});
