// Where the page reads its reports: a source. There are two, with the same methods, and the
// views use them without knowing which one they have:
//   PageSource (page.js)     the documents in the page itself (--format html), read whole
//   ServerSource (server.js) the server of --serve, asked for each piece that is shown
//
// A source has these methods, each giving a promise:
//   list()                       the names of its files
//   open(index)                  the report of a file: { file, fileSize, container, root,
//                                topCount, elementCount, streams, bytes, and, for a checked
//                                file, coverage, problemCount, errorCount, problemRows }, or
//                                { file, error } for a file without one
//   search(report, query)        { count, matches, nodes }: the elements whose type or field
//                                names hold the query, and those that lead to them
//   pathTo(report, from, to)     the elements from the top down to the deepest that holds
//                                the bytes from `from` to `to`
//   locate(report, stream, x)    the first sample at or after x on the stream's chart axis
//   chart(report, stream, x0, x1, columns)
//                                the samples from x0 to x1 summed up per column: for each,
//                                its first sample and count, its key frames, and the least
//                                and largest size of key frames and of other samples
// The element at a path of the reports (nodeAtPath) is found through the child elements, so
// both sources give it alike.
// Elements are nodes (prepareNode) whose kids (child elements) and items (all children)
// are paged rows (PagedRows); a stream's samples are its rows, a report's problems its
// problemRows, and its bytes give segments(from, to) and get(offset). Rows and bytes that
// come later are told with the news of state.js (kids, items, samples, problems, bytes).
import { num } from '../format.js';

// An element of the tree: its facts, its parent, and its child elements (kids) and all
// its children (items) as paged rows, made by the source when first asked for.
export function prepareNode(report, node, parent) {
  node.parent = parent;
  node.depth = parent ? parent.depth + 1 : 0;
  node.o = num(node.offset);
  node.s = num(node.size);
  node.lowerName = String(node.name).toLowerCase();
  node.open = false;
  report.nodes.set(node.id, node);
  return node;
}

// The element at a path of the reports, such as "meta/iprp/ipco/ispe[1]": each step a type,
// and the place among the siblings of that type where it is not the first. Null when there
// is none. The child elements come from the source as the steps need them.
export async function nodeAtPath(report, path) {
  let node = report.root;
  for (const step of path.split('/')) {
    const [, name, place] = /^(.*?)(?:\[(\d+)\])?$/.exec(step);
    const wanted = Number(place || 0);
    let seen = 0;
    let found = null;
    for (let i = 0; i < node.kidCount && !found; i++) {
      const kid = await node.kids.fetch(i);
      if (kid && kid.name === name && seen++ === wanted) found = kid;
    }
    if (!found) return null;
    node = found;
  }
  return node;
}
