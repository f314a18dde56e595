// One message on the page.

import {copyButton, render} from './markdown.js';

function make(tag, className, text = '') {
  const element = document.createElement(tag);
  element.className = className;
  element.textContent = text;
  return element;
}

function doing(text, label, act) {
  const button = make('button', '', text);
  button.type = 'button';
  button.setAttribute('aria-label', label);
  button.addEventListener('click', act);
  return button;
}

export class MessageView {
  // doings: {edit} for a person's message, {retry} for the last one; may lack either.
  constructor(message, doings) {
    this.message = message;
    this.element = make('li', message.role);
    const isUser = message.role === 'user';
    this.element.append(make('h2', '', isUser ? 'You' : 'Model'));
    if (!isUser) {
      this.thinking = make('details', 'thinking');
      this.thinkingTitle = make('summary', '', 'Thinking');
      this.thinkingText = make('div', '');
      this.thinking.append(this.thinkingTitle, this.thinkingText);
      this.element.append(this.thinking);
    }
    this.content = make('div', 'content');
    this.doings = make('div', 'doings');
    this.note = make('p', 'note');
    this.doings.append(copyButton('Copy message', () => this.message.content));
    if (doings.edit) {
      this.doings.append(doing('Edit', 'Edit message', doings.edit));
    }
    if (doings.retry) {
      this.doings.append(doing('Retry', 'Retry this reply', doings.retry));
    }
    this.doings.append(this.note);
    this.element.append(this.content, this.doings);
    this.show(false);
  }

  // The message as it is; comes: more of it follows.
  show(comes) {
    const {message} = this;
    if (message.role === 'user') {
      this.content.textContent = message.content;
    } else {
      this.content.replaceChildren(render(message.content));
      this.thinking.hidden = !message.reasoning;
      this.thinkingText.textContent = message.reasoning ?? '';
      const thinks = comes && message.content === '';
      this.thinkingTitle.textContent = thinks ? 'Thinking' : 'Thoughts';
      this.thinkingTitle.classList.toggle('waiting', thinks);
      this.content.classList.toggle('waiting', comes && !message.reasoning);
    }
    this.element.setAttribute('aria-busy', String(comes));
    this.doings.hidden = comes;
    this.note.textContent = message.note ?? '';
  }
}
