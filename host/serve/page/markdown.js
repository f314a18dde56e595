// A reply's Markdown as elements of the page. What a model writes is never taken for HTML of this
// page's own: everything goes through the sanitiser, which lets through a few kinds of elements and
// no attribute that fetches, runs or styles anything.

import {marked} from './marked.js';
import DOMPurify from './purify.js';

// Debian's 2.4.1+deb12u1 looks at this name in a place where it is not declared; zero is the depth
// that its check lets pass. The walks that limit the depth have variables of their own.
globalThis.shadowNode ??= {__depth: 0};

const kRules = {
  ALLOWED_TAGS: [
    'p', 'br', 'hr', 'h1', 'h2', 'h3', 'h4', 'h5', 'h6', 'strong', 'em', 'del', 'code', 'pre',
    'blockquote', 'ul', 'ol', 'li', 'table', 'thead', 'tbody', 'tr', 'th', 'td', 'a',
  ],
  ALLOWED_ATTR: ['href', 'class', 'start', 'align'],
  ALLOWED_URI_REGEXP: /^(?:https?:|mailto:)/i,
  ALLOW_DATA_ATTR: false,
  ALLOW_ARIA_ATTR: false,
  RETURN_DOM_FRAGMENT: true,
};

// HTML in a reply is shown as it was written; an image, which would be fetched, as a link to it.
const renderer = {
  html: (text) => escaped(text),
  image: (href, title, text) => {
    const shown = escaped(text || href);
    return `<a href="${escaped(href)}">${shown}</a>`;
  },
};
marked.use({renderer, mangle: false, headerIds: false, gfm: true});

function escaped(text) {
  const names = {'&': '&amp;', '<': '&lt;', '>': '&gt;', '"': '&quot;', "'": '&#39;'};
  return text.replace(/[&<>"']/g, (sign) => names[sign]);
}

async function copyText(text, button) {
  let copied = true;
  try {
    await navigator.clipboard.writeText(text);
  } catch {
    // Without https there is no clipboard but for the selection.
    const area = document.createElement('textarea');
    area.value = text;
    document.body.append(area);
    area.select();
    copied = document.execCommand('copy');
    area.remove();
    button.focus();
  }
  button.textContent = copied ? 'Copied' : 'Not copied';
  setTimeout(() => { button.textContent = 'Copy'; }, 1500);
}

export function copyButton(label, textOf) {
  const button = document.createElement('button');
  button.type = 'button';
  button.textContent = 'Copy';
  button.setAttribute('aria-label', label);
  button.addEventListener('click', () => copyText(textOf(), button));
  return button;
}

function frameCode(block) {
  const figure = document.createElement('figure');
  figure.className = 'code';
  const caption = document.createElement('figcaption');
  const language = document.createElement('span');
  const named = /language-(\S+)/.exec(block.querySelector('code')?.className ?? '');
  language.textContent = named ? named[1] : 'code';
  caption.append(language, copyButton('Copy code', () => block.textContent));
  block.replaceWith(figure);
  block.tabIndex = 0;  // can be wider than the page: it is scrolled by keyboard
  figure.append(caption, block);
}

export function render(text) {
  const fragment = DOMPurify.sanitize(marked.parse(text), kRules);
  for (const link of fragment.querySelectorAll('a')) {
    if (!link.hasAttribute('href')) {  // not one that may be followed
      link.replaceWith(...link.childNodes);
      continue;
    }
    link.target = '_blank';
    link.rel = 'noopener noreferrer nofollow';
  }
  // The page has headings of its own above those of a reply.
  for (const heading of fragment.querySelectorAll('h1, h2, h3, h4, h5, h6')) {
    const lower = document.createElement(`h${Math.min(6, Number(heading.tagName[1]) + 2)}`);
    lower.append(...heading.childNodes);
    heading.replaceWith(lower);
  }
  for (const block of fragment.querySelectorAll('pre')) {
    frameCode(block);
  }
  return fragment;
}
