export function bytes(count) {
  return count < 1024 ? `${count} B` : `${(count / 1024).toFixed(1)} KiB`;
}

export function milliseconds(time) {
  return `${time < 10 ? time.toFixed(1) : Math.round(time)} ms`;
}
