// Makes the small real files of the Node muxers, beside FFmpeg's: mediabunny remuxes the
// H.264 and AAC packets of a tiny FFmpeg file into mp4 (progressive and fragmented) and mov,
// and mux.js transmuxes a tiny MPEG-TS file into fragmented mp4. The packages are pinned in
// package.json; `npm ci` here installs them. Run from anywhere: the files land in tests/data.
//
//   node-mediabunny.mp4        mp4 with the index in front
//   node-mediabunny-frag.mp4   fragmented mp4, a fragment for each key frame
//   node-mediabunny.mov        QuickTime
//   node-muxjs.mp4             mux.js: the initialization segment and one media segment

import { execFileSync } from 'node:child_process';
import { mkdtempSync, readFileSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { dirname, join } from 'node:path';
import { fileURLToPath } from 'node:url';

import {
    ALL_FORMATS,
    BufferSource,
    BufferTarget,
    EncodedAudioPacketSource,
    EncodedPacketSink,
    EncodedVideoPacketSource,
    Input,
    MovOutputFormat,
    Mp4OutputFormat,
    Output,
} from 'mediabunny';
import muxjs from 'mux.js';

const data = join(dirname(fileURLToPath(import.meta.url)), '..');
// mediabunny stamps its boxes with the clock's time; a fixed clock keeps the files the same.
Date.now = () => Date.UTC(2024, 0, 1);
const scratch = mkdtempSync(join(tmpdir(), 'sarvelinth-node-'));

// A second of tiny video and sound; bit-exact flags keep the bytes the same from run to run.
function ffmpeg(container, file) {
    const path = join(scratch, file);
    execFileSync('ffmpeg', [
        '-hide_banner', '-loglevel', 'error', '-nostdin', '-y',
        '-f', 'lavfi', '-i', 'testsrc=size=32x24:rate=10:duration=1.2',
        '-f', 'lavfi', '-i', 'sine=frequency=440:sample_rate=8000:duration=1.2',
        '-c:v', 'libx264', '-preset', 'ultrafast', '-crf', '45', '-pix_fmt', 'yuv420p', '-g', '4',
        '-bf', '0', '-bsf:v', 'filter_units=remove_types=6', '-c:a', 'aac', '-b:a', '8k',
        '-fflags', '+bitexact', '-flags:v', '+bitexact', '-flags:a', '+bitexact', '-threads', '1',
        '-map_metadata', '-1', '-f', container, path,
    ]);
    return readFileSync(path);
}

// Every packet of the source's video and audio track, through mediabunny into format.
async function remux(source, format) {
    const input = new Input({ formats: ALL_FORMATS, source: new BufferSource(source) });
    const output = new Output({ format, target: new BufferTarget() });
    const tracks = [];
    for (const track of [await input.getPrimaryVideoTrack(), await input.getPrimaryAudioTrack()]) {
        const video = track.type === 'video';
        const packets = video ? new EncodedVideoPacketSource(track.codec)
                              : new EncodedAudioPacketSource(track.codec);
        if (video)
            output.addVideoTrack(packets);
        else
            output.addAudioTrack(packets);
        tracks.push({ track, packets, decoderConfig: await track.getDecoderConfig() });
    }
    await output.start();
    for (const { track, packets, decoderConfig } of tracks) {
        let first = true;
        for await (const packet of new EncodedPacketSink(track).packets()) {
            await packets.add(packet, first ? { decoderConfig } : undefined);
            first = false;
        }
        packets.close();
    }
    await output.finalize();
    return Buffer.from(output.target.buffer);
}

// mux.js: the initialization segment and the media segment of the whole stream, joined.
function transmux(ts) {
    const transmuxer = new muxjs.mp4.Transmuxer();
    const parts = [];
    transmuxer.on('data', (segment) => {
        if (parts.length === 0)
            parts.push(Buffer.from(segment.initSegment));
        parts.push(Buffer.from(segment.data));
    });
    transmuxer.push(new Uint8Array(ts));
    transmuxer.flush();
    return Buffer.concat(parts);
}

try {
    const source = ffmpeg('mp4', 'source.mp4');
    writeFileSync(join(data, 'node-mediabunny.mp4'),
                  await remux(source, new Mp4OutputFormat({ fastStart: 'in-memory' })));
    writeFileSync(join(data, 'node-mediabunny-frag.mp4'),
                  await remux(source, new Mp4OutputFormat({ fastStart: 'fragmented',
                                                          minimumFragmentDuration: 0.4 })));
    writeFileSync(join(data, 'node-mediabunny.mov'),
                  await remux(source, new MovOutputFormat({ fastStart: 'in-memory' })));
    writeFileSync(join(data, 'node-muxjs.mp4'), transmux(ffmpeg('mpegts', 'source.ts')));
} finally {
    rmSync(scratch, { recursive: true, force: true });
}
