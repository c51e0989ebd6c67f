// Figures as people read them.

const byteUnits = ['B', 'KiB', 'MiB', 'GiB', 'TiB', 'PiB'];
const bitUnits = ['bit/s', 'kbit/s', 'Mbit/s', 'Gbit/s', 'Tbit/s'];

// Three digits, whatever the size.
function digits(value) {
  return value >= 100 || Number.isInteger(value) ? value.toFixed(0) : value >= 10 ? value.toFixed(1) : value.toFixed(2);
}

function scaled(value, base, units) {
  let unit = 0;
  while (value >= (base === 1024 ? 1000 : 999.5) && unit < units.length - 1) {
    value /= base;
    unit++;
  }
  return `${digits(value)} ${units[unit]}`;
}

/** 1536 is "1.50 KiB". Takes numbers and bigints. */
export const bytes = (value) => scaled(Number(value), 1024, byteUnits);

/** Bits per second out of bytes per second. */
export const rate = (bytesPerSecond) => scaled(bytesPerSecond * 8 < 1 ? 0 : bytesPerSecond * 8, 1000, bitUnits);

/** A share from 0 to 1: "7.3 %". */
export const percent = (share) => `${(share * 100).toFixed(share < 0.0995 ? 1 : 0)} %`;

/** Milliseconds as "3 d 4 h 12 min": the two or three largest units that say something. */
export function duration(milliseconds) {
  const seconds = Math.floor(Number(milliseconds) / 1000);
  const days = Math.floor(seconds / 86400);
  const hours = Math.floor(seconds / 3600) % 24;
  const minutes = Math.floor(seconds / 60) % 60;
  if (days) return `${days} d ${hours} h ${minutes} min`;
  if (hours) return `${hours} h ${minutes} min`;
  if (minutes) return `${minutes} min ${seconds % 60} s`;
  return `${seconds} s`;
}

/** Processor time as "1:02:03.4" or "2:03.4". */
export function processorTime(milliseconds) {
  const tenths = Math.floor(Number(milliseconds) / 100);
  const hours = Math.floor(tenths / 36000);
  const minutes = Math.floor(tenths / 600) % 60;
  const rest = ((tenths % 600) / 10).toFixed(1).padStart(4, '0');
  return hours ? `${hours}:${String(minutes).padStart(2, '0')}:${rest}` : `${minutes}:${rest}`;
}

/** The next of 1, 2, 5, 10, 20, 50 ... that is not smaller. */
export function niceCeiling(value) {
  const power = 10 ** Math.floor(Math.log10(value));
  return [1, 2, 5, 10].map((step) => step * power).find((candidate) => candidate >= value * 0.999999);
}

const two = (value) => String(value).padStart(2, '0');

/** A time in ms since 1970 as "14:05:09.123", by the clock of who looks at it. */
export function clockTime(time) {
  const date = new Date(time);
  const clock = [date.getHours(), date.getMinutes(), date.getSeconds()].map(two).join(':');
  return `${clock}.${String(date.getMilliseconds()).padStart(3, '0')}`;
}

/** The same as "2026-11-21". */
export function day(time) {
  const date = new Date(time);
  return `${date.getFullYear()}-${two(date.getMonth() + 1)}-${two(date.getDate())}`;
}

/** A count with its thousands apart. */
export const count = (value) => String(value).replace(/\B(?=(\d{3})+$)/g, '\u202f');

/** How often something happens. */
export const perSecond = (value) => (value < 0.05 ? '0' : value < 10 ? value.toFixed(1) : count(Math.round(value)));
