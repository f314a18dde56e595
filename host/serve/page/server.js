// What the page asks of the server that it came from.

function headers(key) {
  const common = {'Content-Type': 'application/json'};
  return key === '' ? common : {...common, Authorization: `Bearer ${key}`};
}

async function faultOf(response) {
  let message = '';
  try {
    message = (await response.json()).error.message;
  } catch {
    // Not an answer of this server: the status has to do.
  }
  const fault = new Error(message || `The server answered with status ${response.status}.`);
  fault.status = response.status;
  return fault;
}

// {id, contextLength?}
export async function firstModel(key) {
  const response = await fetch('v1/models', {headers: headers(key)});
  if (!response.ok) {
    throw await faultOf(response);
  }
  const model = (await response.json()).data[0];
  return {id: model.id, contextLength: model.context_length};
}

// The data of server-sent events, one after another. Bytes come in pieces that end anywhere.
export async function* events(body) {
  const reader = body.pipeThrough(new TextDecoderStream()).getReader();
  let pending = '';
  while (true) {
    const {value, done} = await reader.read();
    if (done) {
      return;
    }
    pending += value;
    const parts = pending.split('\n\n');
    pending = parts.pop();
    for (const part of parts) {
      const data = part.split('\n').filter((line) => line.startsWith('data:'));
      if (data.length > 0) {
        yield data.map((line) => line.slice(5).replace(/^ /, '')).join('\n');
      }
    }
  }
}

// Streams a reply: tell({reasoning?, content?, finish?, usage?}) for every piece. Throws what goes
// wrong; an AbortError where the signal ends it.
export async function streamReply(request, key, signal, tell) {
  const response = await fetch('v1/chat/completions', {
    method: 'POST',
    headers: headers(key),
    body: JSON.stringify({...request, stream: true, stream_options: {include_usage: true}}),
    signal,
  });
  if (!response.ok) {
    throw await faultOf(response);
  }
  let ended = false;
  for await (const data of events(response.body)) {
    if (data === '[DONE]') {
      ended = true;
      continue;
    }
    const chunk = JSON.parse(data);
    if (chunk.error) {
      throw new Error(chunk.error.message);
    }
    const choice = chunk.choices?.[0];
    tell({
      reasoning: choice?.delta?.reasoning_content,
      content: choice?.delta?.content,
      finish: choice?.finish_reason,
      usage: chunk.usage,
    });
  }
  if (!ended) {
    throw new Error('The connection ended before the reply did.');
  }
}
