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
