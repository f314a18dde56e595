// A server of the program under test, started and stopped.

import {spawn} from 'node:child_process';

// {url, stop()}. stop() asks it to end and gives its exit status.
export async function startServer(zym, model, options = []) {
  const child = spawn(zym, ['serve', model, '--port', '0', ...options],
                      {stdio: ['ignore', 'inherit', 'pipe']});
  const ended = new Promise((resolve) => child.on('exit', (status) => resolve(status)));
  let said = '';
  const url = await new Promise((resolve, reject) => {
    child.stderr.setEncoding('utf8');
    child.stderr.on('data', (text) => {
      said += text;
      const found = /https?:\/\/\S+(?=: )/.exec(said);
      if (found) {
        resolve(found[0]);
      }
    });
    ended.then(() => reject(new Error(`the server ended: ${said}`)));
  });
  return {
    url,
    stop() {
      child.kill('SIGTERM');
      return ended;
    },
  };
}
