// Browsers keep the start page, but fetch this anew each time: a page that names other assets than this is of another
// version, and is fetched again, once.
const assets = "/assets/";

if (document.documentElement.dataset.assets === assets || sessionStorage.getItem('renewed') === assets) {
  import(`${assets}app.js`);
} else {
  sessionStorage.setItem('renewed', assets);
  location.reload();
}
