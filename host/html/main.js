// The viewer of sarvelinth's reports: the box tree, the selected element's fields and bytes,
// a map of the file and the streams with their samples, one file at a time. It reads the
// reports through a source (sources/source.js): the JSON documents in the page itself (the
// page of --format html), or the server of --serve, which answers each question with the
// piece that is shown. Lists that can grow to millions of rows (tree, fields, hex, samples)
// render only the rows in view and ask for them page by page.
//
// The views share state.js and hear its news; none calls another. A new view is a module of
// its own and one line below: the order of the lines is the order of their tabs.
import { start } from './app.js';
import './views/tree.js';
import './views/fields.js';
import './views/hex.js';
import './views/map.js';
import './views/problems.js';
import './views/samples.js';
import './views/units.js';
import './views/chart.js';
import './views/items.js';

// Lets the page paint its frame before a large report is parsed.
requestAnimationFrame(() => setTimeout(start, 0));
