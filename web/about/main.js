import { showConnection } from './connection.js';
import { showFiles } from './files.js';

async function start() {
  const system = await (await fetch('/system.json', { cache: 'no-store' })).json();
  await showConnection(document.getElementById('connection'), system.version);
  await showFiles(document.getElementById('file-rows'), document.getElementById('file-sums'), system.files);
  document.documentElement.dataset.state = 'shown';
}

document.getElementById('moved').hostname = location.hostname;
addCopyButtons();
start().catch((error) => {
  document.documentElement.dataset.state = 'failed';
  console.error(error);
});

// The clipboard is open to pages of a secure origin alone, which 127.0.0.1 is and a router's own address is not.
function addCopyButtons() {
  if (!navigator.clipboard) return;
  for (const block of document.querySelectorAll('pre')) {
    const button = document.createElement('button');
    button.type = 'button';
    button.textContent = 'Copy';
    button.addEventListener('click', async () => {
      await navigator.clipboard.writeText(block.querySelector('code').textContent);
      button.textContent = 'Copied';
      setTimeout(() => (button.textContent = 'Copy'), 1500);
    });
    block.append(button);
  }
}
