// Where the bytes of a checked file went: the parts of the coverage of its report.
import { num } from './format.js';

// The parts of a checked file's bytes, as the report names them, with their colours.
export const COVERAGE_PARTS = [
  ['structure', 'box headers and fields', '#1f6feb'],
  ['sampleData', 'sample data', '#8c959f'],
  ['itemData', 'item data', '#2da44e'],
  ['unreferencedMediaData', 'media data no sample references', '#e5a50a'],
  ['filler', 'free and skip', '#d0d7de'],
  ['unknown', 'unknown boxes', '#a371f7'],
  ['trailing', 'trailing bytes', '#e5533d'],
];

// The bytes of each part in the cells of the map that lie under a stretch of the file, given
// as fractions of its length.
export function coverageBetween(coverage, start, end) {
  const map = coverage.map;
  const cells = map.structure.length;
  const cellSize = num(map.cellSize);
  const size = num(coverage.fileSize);
  if (!cells) return COVERAGE_PARTS.map(() => 0);
  const first = Math.min(cells - 1, Math.floor((start * size) / cellSize));
  const last = Math.max(first + 1, Math.min(cells, Math.ceil((end * size) / cellSize)));
  return COVERAGE_PARTS.map(([key]) => {
    let sum = 0;
    for (let c = first; c < last; c++) sum += num(map[key][c]);
    return sum;
  });
}
