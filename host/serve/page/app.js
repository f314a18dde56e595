// The chat page: a conversation with the model of the server that it came from.

import {MessageView} from './message_view.js';
import {firstModel, streamReply} from './server.js';
import * as storage from './storage.js';

const byId = (id) => document.getElementById(id);

// Settings that a request takes as numbers, by the name of their field.
const kNumbers = {
  'max-tokens': 'max_tokens',
  temperature: 'temperature',
  'top-p': 'top_p',
  'top-k': 'top_k',
  'min-p': 'min_p',
  seed: 'seed',
};
const kRemembered = [...Object.keys(kNumbers), 'thinking', 'theme'];

let conversation = storage.newConversation();
let settings = storage.loadSettings();
let model = {id: ''};
let reply = null;    // {abort, view} while one comes
let edited = null;   // index of the message whose text is being changed
let draft = '';      // what stood in its place

// --- what is shown ---

function showFault(text) {
  byId('fault').textContent = text;
}

function isAtEnd() {
  const talk = document.querySelector('main');
  return talk.scrollHeight - talk.scrollTop - talk.clientHeight < 80;
}

function scrollToEnd() {
  const talk = document.querySelector('main');
  talk.scrollTop = talk.scrollHeight;
}

function showContext(usage) {
  const room = model.contextLength ? ` / ${model.contextLength.toLocaleString('en')}` : '';
  byId('context-use').textContent =
    usage ? `${usage.total_tokens.toLocaleString('en')}${room} tokens` : '';
}

function viewOf(message, index) {
  const isLast = index === conversation.messages.length - 1;
  return new MessageView(message, {
    edit: message.role === 'user' ? () => edit(index) : null,
    retry: isLast ? retry : null,
  });
}

function showConversation() {
  const views = conversation.messages.map(viewOf);
  byId('messages').replaceChildren(...views.map((view) => view.element));
  byId('empty').hidden = views.length > 0;
  byId('system').value = conversation.system;
  showContext(conversation.usage);
  showFault('');
  showList();
  scrollToEnd();
  return views.at(-1);
}

function showList() {
  const entries = storage.listConversations().map(({id, title}) => {
    const entry = document.createElement('li');
    const open = document.createElement('button');
    open.type = 'button';
    open.textContent = title || 'Without a message';
    open.setAttribute('aria-current', String(id === conversation.id));
    open.addEventListener('click', () => openConversation(id));
    const remove = document.createElement('button');
    remove.type = 'button';
    remove.textContent = '×';
    remove.setAttribute('aria-label', `Delete: ${open.textContent}`);
    remove.addEventListener('click', () => removeConversation(id, open.textContent));
    entry.append(open, remove);
    return entry;
  });
  byId('conversation-list').replaceChildren(...entries);
}

function showReplying(comes) {
  byId('send').hidden = comes;
  byId('stop').hidden = !comes;
  byId('messages').setAttribute('aria-busy', String(comes));
}

// --- conversations ---

function keep() {
  if (!storage.saveConversation(conversation)) {
    showFault('The browser has no room to keep this conversation.');
  }
  history.replaceState(null, '', `#${conversation.id}`);
  showList();
}

function leave() {
  reply?.abort.abort();
  endEdit();
  byId('conversations').classList.remove('open');
  byId('show-list').setAttribute('aria-expanded', 'false');
}

function openConversation(id) {
  leave();
  conversation = storage.loadConversation(id) ?? storage.newConversation();
  history.replaceState(null, '', `#${conversation.id}`);
  showConversation();
}

function startConversation() {
  leave();
  conversation = storage.newConversation();
  history.replaceState(null, '', location.pathname);
  showConversation();
  byId('message').focus();
}

function removeConversation(id, title) {
  if (!confirm(`Delete the conversation "${title}"?`)) {
    return;
  }
  storage.forgetConversation(id);
  if (id === conversation.id) {
    conversation.isDeleted = true;  // a reply that is cut off does not bring it back
    startConversation();
  } else {
    showList();
  }
}

// --- replies ---

function requestOf(messages) {
  const request = {model: model.id, messages: []};
  if (conversation.system.trim() !== '') {
    request.messages.push({role: 'system', content: conversation.system});
  }
  for (const {role, content, reasoning} of messages) {
    request.messages.push(reasoning ? {role, content, reasoning_content: reasoning} :
                                      {role, content});
  }
  for (const [setting, field] of Object.entries(kNumbers)) {
    if (settings[setting]) {
      request[field] = Number(settings[setting]);
    }
  }
  if (settings.thinking) {
    request.chat_template_kwargs = {enable_thinking: settings.thinking === 'on'};
  }
  return request;
}

// Tells how fast a reply came, counted from its first token on.
class Pace {
  sawPiece() {
    this.last = performance.now();
    this.first ??= this.last;
  }
  text(tokens) {
    const seconds = (this.last - this.first) / 1000;
    return seconds > 0 && tokens > 1 ? `, ${((tokens - 1) / seconds).toFixed(1)} tokens/s` : '';
  }
}

// Draws at most as often as the page can: a long reply takes its time to be laid out.
class Drawing {
  constructor(view) {
    this.view = view;
    this.pause = 0;
  }
  ask() {
    this.timer ??= setTimeout(() => {
      this.timer = undefined;
      const begin = performance.now();
      this.draw(true);
      this.pause = Math.max(40, 4 * (performance.now() - begin));
    }, this.pause);
  }
  draw(comes) {
    const follows = isAtEnd();
    this.view.show(comes);
    if (follows) {
      scrollToEnd();
    }
  }
  finish() {
    clearTimeout(this.timer);
    this.draw(false);
  }
}

// giveBack: puts back what made room for a reply of which nothing came.
async function generate(giveBack) {
  const own = conversation;
  const request = requestOf(own.messages);
  const message = {role: 'assistant', content: '', reasoning: ''};
  own.messages.push(message);
  const drawing = new Drawing(showConversation());
  const abort = new AbortController();
  const pace = new Pace();
  let finish = '';
  reply = {abort};
  showReplying(true);
  drawing.draw(true);
  byId('status').textContent = 'The model is reading.';
  try {
    await streamReply(request, storage.apiKey(), abort.signal, (piece) => {
      if (piece.reasoning || piece.content) {
        pace.sawPiece();
        byId('status').textContent = 'The model is writing. Esc stops it.';
      }
      message.reasoning += piece.reasoning ?? '';
      message.content += piece.content ?? '';
      finish = piece.finish ?? finish;
      own.usage = piece.usage ?? own.usage;
      drawing.ask();
    });
    const tokens = own.usage?.completion_tokens ?? 0;
    message.note = `${tokens} tokens${pace.text(tokens)}${finish === 'length' ? ', cut' : ''}`;
    byId('status').textContent = 'The reply is complete.';
  } catch (fault) {
    message.note = abort.signal.aborted ? 'stopped' : 'broken off';
    byId('status').textContent = abort.signal.aborted ? 'Stopped.' : '';
    if (!abort.signal.aborted) {
      tellFault(fault);
    }
  }
  reply = null;
  drawing.finish();
  if (message.content === '' && message.reasoning === '') {
    own.messages.pop();
    giveBack();
  }
  endReply(own);
}

// What is kept and shown once a reply is over, of a conversation that may have been left meanwhile.
function endReply(own) {
  showReplying(false);
  if (own === conversation) {
    keep();
    const fault = byId('fault').textContent;
    showConversation();
    showFault(fault);
  } else if (!own.isDeleted) {
    storage.saveConversation(own);
    showList();
  }
}

function tellFault(fault) {
  const isLocked = fault.status === 401;
  showFault(isLocked ? 'The server wants an API key. Settings has a place for it.' :
                       fault.message);
}

function send() {
  const box = byId('message');
  const text = box.value.trim();
  if (text === '' || reply) {
    return;
  }
  let giveBack = () => {};
  if (edited !== null) {
    const own = conversation;
    const former = own.messages;
    own.messages = former.slice(0, edited);
    giveBack = () => {
      own.messages = former;
      box.value = text;
    };
    edited = null;
    byId('cancel-edit').hidden = true;
  } else if (conversation.messages.at(-1)?.role === 'user') {
    // Its reply failed: the new text takes its place.
    conversation.messages.pop();
  }
  conversation.messages.push({role: 'user', content: text});
  box.value = '';
  fitBox();
  keep();
  generate(giveBack);
}

function retry() {
  if (reply) {
    return;
  }
  const own = conversation;
  const former = own.messages;
  own.messages = former.at(-1).role === 'assistant' ? former.slice(0, -1) : [...former];
  generate(() => { own.messages = former; });
}

function edit(index) {
  if (reply) {
    return;
  }
  const box = byId('message');
  if (edited === null) {
    draft = box.value;
  }
  edited = index;
  box.value = conversation.messages[index].content;
  byId('cancel-edit').hidden = false;
  byId('status').textContent = 'What follows the message is replaced when you send it.';
  fitBox();
  box.focus();
}

function endEdit() {
  if (edited === null) {
    return;
  }
  edited = null;
  byId('message').value = draft;
  byId('cancel-edit').hidden = true;
  byId('status').textContent = '';
  fitBox();
}

// --- settings ---

function applyTheme() {
  if (settings.theme) {
    document.documentElement.dataset.theme = settings.theme;
  } else {
    delete document.documentElement.dataset.theme;
  }
}

function openSettings() {
  for (const name of kRemembered) {
    byId(name).value = settings[name] ?? '';
  }
  byId('system').value = conversation.system;
  byId('api-key').value = storage.apiKey();
  byId('settings').showModal();
}

function takeSettings() {
  for (const name of kRemembered) {
    // An input holds nothing where what was typed is no number, or out of its range.
    settings[name] = byId(name).validity.valid ? byId(name).value : '';
  }
  storage.saveSettings(settings);
  applyTheme();
  storage.keepApiKey(byId('api-key').value.trim());
  if (conversation.system !== byId('system').value) {
    conversation.system = byId('system').value;
    if (conversation.messages.length > 0) {
      keep();
    }
  }
  connect();
}

// --- keyboard ---

function fitBox() {
  const box = byId('message');
  box.rows = Math.min(12, box.value.split('\n').length);
}

// A finger has no Shift key at hand: Enter is a new line there.
const typesWithFingers = matchMedia('(pointer: coarse)').matches;

function onMessageKey(event) {
  if (event.key === 'Enter' && !event.shiftKey && !event.isComposing && !typesWithFingers) {
    event.preventDefault();
    send();
  } else if (event.key === 'ArrowUp' && byId('message').value === '') {
    const last = conversation.messages.findLastIndex(({role}) => role === 'user');
    if (last >= 0) {
      event.preventDefault();
      edit(last);
    }
  }
}

function onKey(event) {
  if (event.key === 'Escape' && !byId('settings').open) {
    if (reply) {
      reply.abort.abort();
    } else {
      endEdit();
    }
  } else if (event.altKey && event.key.toLowerCase() === 'n') {
    event.preventDefault();
    startConversation();
  }
}

// --- beginning ---

async function connect() {
  try {
    model = await firstModel(storage.apiKey());
    byId('model').textContent = model.id;
    document.title = model.id;
    showContext(conversation.usage);
    showFault('');
  } catch (fault) {
    tellFault(fault);
  }
}

function toggleList() {
  const open = byId('conversations').classList.toggle('open');
  byId('show-list').setAttribute('aria-expanded', String(open));
}

function begin() {
  applyTheme();
  byId('composer').addEventListener('submit', (event) => {
    event.preventDefault();
    send();
  });
  byId('message').addEventListener('input', fitBox);
  byId('message').addEventListener('keydown', onMessageKey);
  byId('stop').addEventListener('click', () => reply?.abort.abort());
  byId('cancel-edit').addEventListener('click', endEdit);
  byId('new-conversation').addEventListener('click', startConversation);
  byId('show-list').addEventListener('click', toggleList);
  byId('show-settings').addEventListener('click', openSettings);
  byId('settings').addEventListener('close', takeSettings);
  document.addEventListener('keydown', onKey);
  // Another window of the same browser may have talked.
  addEventListener('storage', showList);
  addEventListener('pagehide', () => {
    if (reply) {
      storage.saveConversation(conversation);  // as far as the reply came
      reply.abort.abort();
    }
  });
  conversation = storage.loadConversation(location.hash.slice(1)) ?? conversation;
  showConversation();
  connect();
  byId('message').focus();
}

begin();
