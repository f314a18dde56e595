import assert from 'node:assert/strict';
import { test } from 'node:test';
import { createOpenAICompatible } from '@ai-sdk/openai-compatible';
import { APICallError, generateText, jsonSchema, Output, streamText, tool } from 'ai';
import {
  assertCancels, assertWord, endless, hello, lookUpSchema, toolsUrl, url, withoutTools, wordSchema,
} from './server.mjs';

const providerOf = (base) => createOpenAICompatible({
  name: 'zym', baseURL: `${base}/v1`, includeUsage: true, supportsStructuredOutputs: true,
});
const nameOf = async (base) => (await (await fetch(`${base}/v1/models`)).json()).data[0].id;

const model = providerOf(url)(await nameOf(url));
const asked = { model, prompt: 'Hello', temperature: 0, presencePenalty: 0, maxRetries: 0 };
const tools = {
  look_up: tool({ description: 'Looks up.', inputSchema: jsonSchema(lookUpSchema) }),
};

test('text is generated', async () => {
  const result = await generateText(asked);
  assert.equal(result.text, hello);
  assert.equal(result.finishReason, 'stop');
  assert.ok(result.usage.inputTokens > 0);
  assert.ok(result.usage.outputTokens > 0);
  assert.ok((await generateText(asked)).usage.inputTokenDetails.cacheReadTokens > 0);
});

test('text streams', async () => {
  const result = streamText(asked);
  let text = '';
  for await (const piece of result.textStream) {
    text += piece;
  }
  assert.equal(text, hello);
  assert.equal(await result.finishReason, 'stop');
  assert.ok((await result.usage).outputTokens > 0);
});

test('an object is generated', async () => {
  const result = await generateText({
    model,
    prompt: 'Hello',
    maxRetries: 0,
    output: Output.object({ schema: jsonSchema(wordSchema) }),
  });
  assertWord(assert, result.output);
});

test('errors have a status and a message', async () => {
  await assert.rejects(generateText({ ...asked, temperature: 9 }), (error) => {
    assert.ok(APICallError.isInstance(error));
    assert.equal(error.statusCode, 400);
    assert.match(error.message, /temperature/);
    return true;
  });
});

test('a stream can be given up', async () => {
  const { max_tokens: maxOutputTokens, logit_bias } = await endless();
  await assertCancels(assert, async () => {
    const controller = new AbortController();
    const result = streamText({
      ...asked,
      maxOutputTokens,
      providerOptions: { zym: { logit_bias } },
      abortSignal: controller.signal,
      onError() {},
    });
    let pieces = 0;
    for await (const part of result.fullStream) {
      if (part.type === 'text-delta' && ++pieces === 2) {
        controller.abort();
      }
    }
    assert.ok(controller.signal.aborted);
  });
  assert.equal((await generateText(asked)).text, hello);
});

test('tools are called', { skip: withoutTools }, async () => {
  const withTools = providerOf(toolsUrl)(await nameOf(toolsUrl));
  const settings = { model: withTools, prompt: 'Hello', maxRetries: 0, tools };
  const result = await generateText({
    ...settings, toolChoice: { type: 'tool', toolName: 'look_up' },
  });
  assert.equal(result.finishReason, 'tool-calls');
  assert.equal(typeof result.toolCalls[0].input.exact, 'boolean');
  const streamed = streamText({ ...settings, toolChoice: 'required' });
  const calls = await streamed.toolCalls;
  assert.ok(calls.length > 0);
  assert.equal(typeof calls[0].input.exact, 'boolean');
});
