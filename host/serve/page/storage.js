// Conversations and settings, kept in the browser.
//
// A conversation: {id, title, system, messages: [{role, content, reasoning?, seconds?, note?}]}.

const kIndex = 'zym.conversations';
const kSettings = 'zym.settings';
const kKey = 'zym.api-key';
const keyOf = (id) => `zym.conversation.${id}`;

function read(key, otherwise) {
  try {
    return JSON.parse(localStorage.getItem(key)) ?? otherwise;
  } catch {
    return otherwise;
  }
}

// False where the browser keeps nothing: no room, or none is granted.
function write(key, value) {
  try {
    localStorage.setItem(key, JSON.stringify(value));
    return true;
  } catch {
    return false;
  }
}

// [{id, title}], the one that was talked in last first.
export function listConversations() {
  const list = read(kIndex, []);
  return Array.isArray(list) ? list : [];
}

export function newConversation() {
  const id = Array.from(crypto.getRandomValues(new Uint32Array(2)), (n) => n.toString(36)).join('');
  return {id, title: '', system: '', messages: []};
}

// Null where it is gone.
export function loadConversation(id) {
  const conversation = read(keyOf(id), null);
  return Array.isArray(conversation?.messages) ? conversation : null;
}

export function saveConversation(conversation) {
  const first = conversation.messages.find((message) => message.role === 'user');
  conversation.title = (first?.content ?? '').trim().replace(/\s+/g, ' ').slice(0, 60);
  const others = listConversations().filter(({id}) => id !== conversation.id);
  return write(keyOf(conversation.id), conversation) &&
    write(kIndex, [{id: conversation.id, title: conversation.title}, ...others]);
}

export function forgetConversation(id) {
  localStorage.removeItem(keyOf(id));
  write(kIndex, listConversations().filter((entry) => entry.id !== id));
}

export function loadSettings() {
  const settings = read(kSettings, {});
  return typeof settings === 'object' && settings !== null ? settings : {};
}

export function saveSettings(settings) {
  write(kSettings, settings);
}

export function apiKey() {
  return sessionStorage.getItem(kKey) ?? '';
}

export function keepApiKey(key) {
  if (key === '') {
    sessionStorage.removeItem(kKey);
  } else {
    sessionStorage.setItem(kKey, key);
  }
}
