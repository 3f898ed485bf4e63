// The units of the selected sample (--units): its NAL units or OBUs open under the samples,
// one line each, and a click shows a unit's bytes.
import { $, el } from '../dom.js';
import { num } from '../format.js';
import { on, showBytes, state } from '../state.js';

const pane = $('sample-units');

// A unit's line: where it lies, its type, the fields of its header and slice, its SEI.
function unitText(unit) {
  const parts = [`@${unit.offset}+${unit.size} type ${unit.type}${unit.name ? ` ${unit.name}` : ''}`];
  const fields = [['nalRefIdc', 'nal_ref_idc'], ['layerId', 'layer'], ['temporalId', 'temporal'],
    ['firstMbInSlice', 'first_mb_in_slice'], ['firstSliceSegmentInPicFlag', 'first_slice_segment_in_pic_flag'],
    ['sliceType', 'slice_type']];
  for (const [key, label] of fields) {
    if (unit[key] !== undefined) parts.push(`${label} ${unit[key]}`);
  }
  for (const sei of unit.sei || []) {
    const captions = sei.captions !== undefined ? `, ${sei.captions} captions` : '';
    const uuid = sei.uuid ? ` ${sei.uuid}` : '';
    parts.push(`SEI ${sei.type}${sei.name ? ` ${sei.name}` : ''} (${sei.size} bytes${captions}${uuid})`);
  }
  return parts.join(', ');
}

function showUnits(stream) {
  pane.replaceChildren();
  pane.hidden = true;
  if (!stream || stream.selected < 0) return;
  const i = stream.selected;
  stream.rows.fetch(i).then((sample) => {
    if (!sample || !sample.units || state.stream !== stream || stream.selected !== i) return;
    pane.replaceChildren(el('strong', '', `Units of sample ${sample.index}`));
    for (const unit of sample.units) {
      const line = el('div', '', unitText(unit));
      line.title = 'Show the bytes of this unit';
      line.addEventListener('click', () => showBytes(num(unit.offset), num(unit.size)));
      pane.append(line);
    }
    pane.hidden = false;
  });
}

on('stream', showUnits);
on('sample', showUnits);
