// Numbers and bytes as the page reads and shows them.

// Offsets and sizes are 64-bit and may pass 2^53 in damaged files. Such numbers are kept
// as their exact decimal text; num() gives a number for arithmetic.
export function parseDocument(text) {
  if (!/[:,[]-?\d{16}/.test(text)) return JSON.parse(text);
  return JSON.parse(text, (key, value, context) =>
    typeof value === 'number' && !Number.isSafeInteger(value) && context && context.source
      ? context.source
      : value);
}
export const num = (value) => (typeof value === 'number' ? value : Number(value));

export function humanSize(bytes) {
  const units = ['bytes', 'KiB', 'MiB', 'GiB', 'TiB'];
  let value = num(bytes);
  let unit = 0;
  while (value >= 1024 && unit < units.length - 1) {
    value /= 1024;
    unit++;
  }
  return unit === 0 ? `${bytes} bytes` : `${value.toFixed(value < 10 ? 2 : 1)} ${units[unit]}`;
}

// The hex text of a raw field's bytes, cut after 48 of them.
export function hexOfRaw(data) {
  const shown = data.length > 96 ? data.slice(0, 96) : data;
  return shown.replace(/(..)(?!$)/g, '$1 ') + (shown.length < data.length ? ' …' : '');
}

export function decodeBase64(data) {
  const text = atob(data);
  const bytes = new Uint8Array(text.length);
  for (let i = 0; i < text.length; i++) bytes[i] = text.charCodeAt(i);
  return bytes;
}
