// What every part of the page uses of the document: elements by id, new elements, the
// tooltip and the status line.

export const $ = (id) => document.getElementById(id);

export function el(tag, className, text) {
  const node = document.createElement(tag);
  if (className) node.className = className;
  if (text !== undefined) node.textContent = text;
  return node;
}

export function span(className, text, title) {
  const node = el('span', className, text);
  if (title) node.title = title;
  return node;
}

const tip = $('tip');
export function showTip(text, x, y) {
  tip.textContent = text;
  tip.hidden = false;
  const width = tip.offsetWidth;
  const height = tip.offsetHeight;
  tip.style.left = `${Math.min(x + 14, window.innerWidth - width - 4)}px`;
  tip.style.top = `${y + 18 + height > window.innerHeight ? y - height - 8 : y + 18}px`;
}
export function hideTip() {
  tip.hidden = true;
}

export function showStatus(text) {
  $('status').textContent = text;
  $('status').hidden = !text;
}
export function reportProblem(error) {
  showStatus(`The server did not answer: ${error.message}`);
}
