// Where the servers are that the clients are tried with.
//
// ZYM_URL: over the demonstration model, which knows a few conversations but no tools.
// ZYM_TOOLS_URL: over a model of the family's vocabulary, with any weights; tests of tools are left
// out without it.
export const url = process.env.ZYM_URL;
export const toolsUrl = process.env.ZYM_TOOLS_URL;

if (!url) {
  throw new Error('ZYM_URL: where does the server listen?');
}

export const withoutTools = toolsUrl ? false : 'no ZYM_TOOLS_URL';

// The greedy answer of the demonstration model to "Hello".
export const hello = 'Hello! I am a tiny demonstration model. Ask me who I am, how the runtime works, ' +
  'or for a short poem.';

export const greedy = { temperature: 0, presence_penalty: 0 };

export const wordSchema = {
  type: 'object',
  properties: { word: { type: 'string', enum: ['red', 'blue'] }, fine: { type: 'boolean' } },
  required: ['word', 'fine'],
  additionalProperties: false,
};

export const lookUpSchema = {
  type: 'object',
  properties: { exact: { type: 'boolean' } },
  required: ['exact'],
  additionalProperties: false,
};

export function assertWord(assert, value) {
  assert.ok(['red', 'blue'].includes(value.word));
  assert.equal(typeof value.fine, 'boolean');
}

async function cancelledReplies() {
  const metrics = await (await fetch(`${url}/metrics`)).text();
  return Number(/^zym_requests_total\{outcome="cancelled"\} (\d+)$/m.exec(metrics)[1]);
}

async function tokensOf(text) {
  const answer = await fetch(`${url}/tokenize`, {
    method: 'POST', body: JSON.stringify({ text, special: true }),
  });
  return (await answer.json()).tokens;
}

// Settings with which a reply does not end before its caller has left: no mark of an end is ever
// chosen.
export async function endless() {
  const marks = await Promise.all(['<|im_end|>', '<|endoftext|>'].map(tokensOf));
  return {
    max_tokens: 6000,
    logit_bias: Object.fromEntries(
      marks.filter((ids) => ids.length === 1).map(([id]) => [id, -100])),
  };
}

// Does what makes a client leave in the middle of a reply, and waits until the server has noticed.
export async function assertCancels(assert, leave) {
  const before = await cancelledReplies();
  await leave();
  for (let i = 0; i < 200; ++i) {
    if (await cancelledReplies() > before) {
      return;
    }
    await new Promise((wake) => setTimeout(wake, 50));
  }
  assert.fail('the server goes on with a reply that nobody reads');
}
