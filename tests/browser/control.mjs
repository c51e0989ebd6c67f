// The way behind the system under test: box.py says what there is.
const post = async (operation, ...args) => {
  const response = await fetch(new URL(operation, process.env.TARN_CONTROL), { method: 'POST', body: JSON.stringify(args) });
  const answer = await response.json();
  if (!response.ok) throw new Error(answer);
  return answer;
};

export const control = new Proxy({}, { get: (_, operation) => (...args) => post(operation, ...args) });

export const origin = process.env.TARN_URL && new URL(process.env.TARN_URL).origin;
export const account = { user: process.env.TARN_USER, password: process.env.TARN_PASSWORD };

/** How long a test waits for something before it says that it waited in vain; a busy machine is no fault of the page. */
export const patience = 90000;

/** Waits until a condition gives something true, and returns it. */
export async function until(condition, what) {
  const deadline = Date.now() + patience;
  for (;;) {
    const result = await condition();
    if (result) return result;
    if (Date.now() > deadline) throw new Error(`waited in vain: ${what}`);
    await new Promise((resolve) => setTimeout(resolve, 50));
  }
}
