// What a player shows of a recording, without a page: the scene of each frame it gives.
import assert from "node:assert/strict";
import { test } from "node:test";
import { isDeepStrictEqual } from "node:util";

import { Encoder } from "../../client/page/recording/format.mjs";
import { Following, commandsOf } from "../../client/page/recording/following.mjs";
import { CHANNELS } from "../../client/page/recording/channels.mjs";
import { textOf } from "../../client/page/recording/json.mjs";
import { MARK, STRETCHES } from "../../client/page/recording/marks.mjs";
import { RecordingError } from "../../client/page/recording/reader.mjs";
import { Recorder } from "../../client/page/recording/recorder.mjs";
import { sourceOfAddress } from "../../client/page/recording/sources.mjs";
import { Survey } from "../../client/page/recording/survey.mjs";
import { Writer } from "../../client/page/recording/writer.mjs";
import { Latencies } from "../../client/page/worker/latencies.mjs";
import { SIDE, linkedView, ownNumber, sideOf } from "../../client/page/sides.mjs";
import { Scene } from "../../client/page/worker/scene.mjs";
import { Builder, contentOf, encode } from "./figures/support/scenes.mjs";
import { bytesOf } from "./support/recordings.mjs";
import { Run, Stage, rechunked, recorded } from "./support/replayed.mjs";

for (const options of [{}, { most: 0, near: 0 }, { most: 0, close: 0 }]) {
    const name = JSON.stringify(options);
    test(`Whatever way a frame is reached, it shows what was shown (${name})`, async () => {
        const { run, bytes } = await recorded();
        const stage = await Stage.open(bytes, options);
        const { player, chunks } = stage;
        const times = [];
        await stage.do(() => player.seek(-5));
        for (const content of run.shown) {
            assert.deepEqual(contentOf(stage.scene), content, `step ${times.length}`);
            times.push(times.length > 0 ? stage.moment.time : 0);
            await stage.do(() => player.step(1));
        }
        assert.equal(new Set(times).size, run.shown.length);
        // Behind the last one there is nothing.
        assert.equal(stage.given.length, run.shown.length);
        for (let i = 0; i < 100; ++i) {
            const wanted = run.random.below(times.length);
            await stage.do(() => player.seek(times[wanted]));
            assert.deepEqual(contentOf(stage.scene), run.shown[wanted], `frame ${wanted}`);
            const by = i % 2 ? 1 : -1;
            await stage.do(() => player.step(by));
            const beside = Math.min(Math.max(wanted + by, 0), times.length - 1);
            assert.deepEqual(contentOf(stage.scene), run.shown[beside], `beside ${wanted}`);
        }
        assert.deepEqual(stage.errors, []);
        assert.ok(chunks.count > 20);
        // A seek begins near: at a snapshot.
        stage.read = 0;
        await stage.do(() => player.seek(times.at(-60)));
        assert.ok(stage.read < bytes.length / 2, `${stage.read} of ${bytes.length}`);
        if (options.close === 0) {
            await stage.do(() => player.seek(0));
            stage.read = 0;
            await stage.do(() => player.seek(times.at(-2)));
            assert.ok(stage.read < bytes.length / 2, `${stage.read} of ${bytes.length}, forwards`);
        }
        // What stands before the first frame is one, too.
        await stage.do(() => player.seek(times[1]));
        await stage.do(() => player.step(-1));
        assert.deepEqual(contentOf(stage.scene), run.shown[0]);
    });
}

test("It plays at the clock's pace, leaves out what the page has no time for, and goes where it is told", async () => {
    // A frame each 100 ms.
    const { run, bytes } = await recorded(21);
    const stage = await Stage.open(bytes);
    const { player, given, moments } = stage;
    await stage.do(() => player.play(2));
    assert.equal(given.length, 1);
    await stage.pass(510);
    assert.deepEqual([given.length, stage.moment.frames], [11, [10]]);
    await stage.do(() => player.play(0.1));
    await stage.pass(2100);
    assert.equal(given.length, 13);
    // In between the time goes on, too.
    const { time } = stage.moment;
    await stage.pass(500);
    assert.equal(Math.round(stage.moment.time - time), 50);
    assert.deepEqual(contentOf(stage.scene), run.shown[12]);

    await stage.do(() => player.play(1));
    const before = given.length;
    stage.isAnswering = false;
    const passing = stage.pass(100);
    while (given.length === before) await new Promise(setImmediate);
    stage.now += 450;
    stage.isAnswering = true;
    player.answered();
    await passing;
    assert.deepEqual([given.length, given.at(-1).number], [before + 2, 17]);
    assert.deepEqual(contentOf(stage.scene), run.shown[17]);

    await stage.pass(10_000);
    assert.equal(stage.moment.isPlaying, false);
    assert.equal(stage.moment.time, stage.chunks.duration);
    assert.deepEqual(contentOf(stage.scene), run.shown.at(-1));

    // Of the moments that somebody scrubs over the last one is gone to; each step counts.
    given.length = 0;
    await stage.do(() => {
        for (let to = 0; to < 2000; to += 100) player.seek(to);
    });
    assert.ok(given.length <= 2);
    assert.deepEqual([stage.moment.time, given.at(-1).number], [1900, 18]);
    await stage.do(() => [-1, -1, 1, -1].forEach((by) => player.step(by)));
    assert.equal(given.at(-1).number, 16);
    await stage.do(() => player.seek(Infinity));

    // From the beginning again; each frame.
    given.length = 0;
    moments.length = 0;
    await stage.do(() => player.play(Infinity));
    assert.ok(given.length === 21 && given.every(({ number }, i) => number === i));
    assert.equal(stage.moment.isPlaying, false);
});

/** What a scene has on one side, with the numbers of its engine. */
const sideContent = (scene, side) =>
    contentOf(scene)
        .filter(([id]) => sideOf(id) === side)
        .map(([id, type, parent, ...rest]) => {
            return [ownNumber(id), type, parent && ownNumber(parent), ...rest];
        });

/** A run with a late frame, an error and a failed frame, and where they are. */
async function troubled() {
    const run = new Run();
    const outcomes = { 10: "late", 20: "failed" };
    run.begin();
    let last = null;
    for (let i = 0; i < 40; ++i) {
        const frame = run.frame(() => run.draw(), i === 0);
        // A token comes when the next frame is under way.
        if (last) run.token(last, outcomes[last.number] ?? "painted");
        if (i === 15) run.recorder.error("a script error");
        last = { ...frame, error: new Error("why") };
    }
    run.recorder.end();
    return { run, bytes: await rechunked(run.file, 1000) };
}

test("The next error, late or failed frame is found, and marked on the time line", async () => {
    const { bytes } = await troubled();
    const stage = await Stage.open(bytes, { most: 0 });
    const { player, chunks, given } = stage;
    const latencies = new Latencies(100);
    const survey = new Survey(chunks, chunks.duration, latencies);
    const found = [];
    for (const isSurveyed of [false, true]) {
        if (isSurveyed) {
            while (await survey.next());
            stage.track.isCalm = (chunk) => survey.isCalm(chunk);
        }
        await stage.do(() => player.seek(0));
        stage.read = 0;
        for (let i = 0; i < 4; ++i) {
            const { why, frames, time } = await stage.do(() => player.nextTrouble());
            const at = Math.floor((time / chunks.duration) * STRETCHES);
            if (i < 3) found.push([frames[0], why, at]);
        }
        // Behind the last one it stays.
        assert.equal(given.at(-1).number, 20);
        found.push(stage.read);
    }
    const [first, second] = [found.slice(0, 4), found.slice(4)];
    const told = first.slice(0, 3).map(([frame, why]) => `${frame} ${why}`);
    assert.deepEqual(told, ["10 late", "15 a script error", "20 failed: why"]);
    assert.deepEqual(first.slice(0, 3), second.slice(0, 3));
    assert.ok(second[3] < first[3] / 2, "what is calm is not read again");
    const marked = (mark) => [...survey.marks.keys()].filter((i) => survey.marks[i] & mark);
    assert.deepEqual(marked(MARK.late), [first[0][2]]);
    assert.equal(marked(MARK.error).length, 2);
    assert.ok(marked(MARK.error).includes(first[2][2]));
    assert.equal(marked(MARK.frame).length, 40);
    assert.deepEqual(marked(MARK.damage), []);
    const { time, clientReceive, clientSend } = latencies.copy();
    const stretch = (time[10] / chunks.duration) * STRETCHES;
    // Not the failed one, nor the last, which has no token.
    assert.deepEqual([latencies.total, Math.floor(stretch)], [38, first[0][2]]);
    const stamps = [9, 10].map((i) => [clientReceive[i], clientSend[i]]);
    assert.deepEqual(stamps.flat(), [3, 7, 0, 0]);

    // Of two recordings it is said whose it is.
    const { run, bytes: calm } = await recorded(60);
    const pair = await Stage.open([calm, bytes]);
    await pair.do((one) => one.seek(0));
    const { why, frames } = await pair.do((one) => one.nextTrouble());
    assert.deepEqual([why, frames[1]], ["1.mcap: late", 10]);
    assert.deepEqual(sideContent(pair.scene, 0), run.shown[frames[0]]);
    assert.ok(frames[0] > 5);
    bytes[pair.reader.chunks.at(-1).offset + 100] ^= 4;
    await pair.do((one) => one.seek(Infinity));
    await pair.do((one) => one.seek(pair.chunks.duration));
    assert.match(pair.errors[0].message, /^1\.mcap: offset \d+: /);
});

test("Where a file is damaged it says so, and shows what is not", async () => {
    const { run, bytes } = await recorded();
    const whole = await Stage.open(bytes);
    const { chunks } = whole.reader;
    const bad = chunks.length >> 2;
    bytes[chunks[bad].offset + 100] ^= 4;
    const stage = await Stage.open(bytes);
    const { player, errors } = stage;
    const before = stage.chunks.timeOf(chunks[bad - 1].first);
    const behind = stage.chunks.timeOf(chunks[bad + 1].first);
    await stage.do(() => player.seek(before));
    // Whoever asked has gone ahead there: they are told where they still are.
    stage.moments.length = 0;
    await stage.do(() => player.seek(behind));
    assert.deepEqual([stage.moment?.time, errors.length], [before, 1]);
    await stage.do(() => player.play(Infinity));
    assert.ok(errors.length >= 2);
    for (const error of errors) {
        assert.ok(error instanceof RecordingError);
        assert.equal(error.offset, chunks[bad].offset);
    }
    assert.equal(stage.moment.isPlaying, false);
    const now = contentOf(stage.scene);
    assert.ok(run.shown.some((content) => isDeepStrictEqual(content, now)));
    // From a snapshot behind it on, all is well.
    errors.length = 0;
    await stage.do(() => player.seek(Infinity));
    assert.deepEqual(errors, []);
    assert.deepEqual(contentOf(stage.scene), run.shown.at(-1));
    const survey = new Survey(stage.chunks);
    while (await survey.next());
    const damaged = survey.marks.filter((mark) => mark & MARK.damage).length;
    assert.ok(damaged === 1 || damaged === 2, `${damaged} stretches`);
});

test("Two recordings go on together, each as it was, and one that is over stays", async () => {
    // Frames of one lie between those of the other.
    const [long, short] = [await recorded(30, 100, 7), await recorded(12, 150)];
    const stage = await Stage.open([long.bytes, short.bytes]);
    const { player } = stage;
    const check = (...frames) => {
        [long, short].forEach(({ run }, side) => {
            const content = sideContent(stage.scene, side);
            assert.deepEqual(content, run.shown[frames[side]], `side ${side}, ${frames}`);
        });
        assert.deepEqual(stage.moment.frames, frames);
    };
    assert.equal(player.duration, Math.max(...stage.tracks.map(({ duration }) => duration)));
    await stage.do(() => player.seek(0));
    check(0, 0);
    const walked = [[0, 0]];
    const step = (by) => stage.do(() => player.step(by));
    // One at a time, in the order of time; the same way back.
    let time = 0;
    while (walked.length < 30 + 12 - 1) {
        const moment = await step(1);
        walked.push(moment.frames);
        check(...moment.frames);
        assert.ok(moment.time >= time);
        ({ time } = moment);
    }
    assert.deepEqual(walked.at(-1), [29, 11]);
    for (const frames of walked.slice(0, -1).reverse()) {
        await step(-1);
        check(...frames);
    }
    await stage.do(() => player.seek(1020));
    check(10, 6);
    await stage.do(() => player.play(1));
    await stage.pass(500);
    check(15, 10);
    await stage.pass(10_000);
    check(29, 11);
    assert.equal(stage.moment.isPlaying, false);
    await stage.do(() => player.play(Infinity));
    check(29, 11);
    assert.deepEqual(stage.errors, []);

    // One whose only frame is still to come is no step back.
    const late = new Run(5000);
    late.begin();
    late.frame(() => late.draw(), true);
    late.recorder.end();
    const other = await Stage.open([long.bytes, await rechunked(late.file, 3000)]);
    await other.do((one) => one.seek(520));
    assert.deepEqual(other.moment.frames, [5, 0]);
    await other.do((one) => one.step(-1));
    assert.deepEqual([other.moment.frames, Math.round(other.moment.time)], [[4, 0], 400]);
});

test("The same axes of two recordings are looked at together, but for dates", () => {
    const axes = (id, members) => ({ id, linkX: null, x: null, y: null, y2: null, ...members });
    const [log, time] = ["log", "time"].map((scale) => ({ scale }));
    const view = { x: [1, 2], y: [3, 4], y2: null };
    for (const [one, other, linked] of [
        [axes(2), axes(3), null],
        [axes(2, { linkX: 1 }), axes(3, { linkX: 1 }), ["x"]],
        [axes(2, { linkX: 1, x: time }), axes(3, { linkX: 1, x: time }), ["x"]],
        [axes(2), axes(SIDE + 2), ["x", "y", "y2"]],
        [axes(SIDE + 2), axes(2), ["x", "y", "y2"]],
        [axes(2), axes(SIDE + 3), null],
        [axes(2, { linkX: 1 }), axes(SIDE + 3, { linkX: 1 }), ["x"]],
        [axes(2, { x: time }), axes(SIDE + 2, { x: time }), ["y", "y2"]],
        [axes(2), axes(SIDE + 2, { y: log }), ["x", "y2"]],
    ]) {
        const found = linkedView(one, other, view);
        assert.deepEqual(found && Object.keys(found), linked, JSON.stringify([one, other]));
    }
    // Home is home.
    const dated = [axes(2, { x: time }), axes(SIDE + 2, { x: time })];
    assert.deepEqual(linkedView(...dated, { x: null }), { x: null });
});

/** A file of these messages: topic and content, text or bytes. */
async function fileOf(messages) {
    const writer = new Writer(CHANNELS);
    messages.forEach(([topic, content], i) => {
        const number = CHANNELS.findIndex((channel) => channel.topic === topic) + 1;
        const data = typeof content === "string" ? Buffer.from(content) : content;
        writer.add(number, BigInt(i + 1), [data]);
    });
    return bytesOf(writer.end());
}

test("What is no run shows nothing, and says why", async () => {
    const whole = ["commands", textOf({ cmd: "beginFrame", seq: 1, frame: 0, whole: true })];
    const mark = ["frames", textOf({ frame: 0, attempt: 1, kind: "whole", bytes: 1, seq: 1 })];
    const data = ["commands", textOf({ cmd: "data", id: 1, data: "7 0", first: 0 })];
    const cases = [
        [[["commands", '{"cmd":"beginFrame","seq":1,"frame":0}'], mark], /nothing whole/],
        [[["commands", "{"], mark], /JSON/],
        [[["frames", "null"]], /nothing whole/],
        [[whole, data, mark], /block 7 0 is missing/],
        [[whole, ["blocks", Buffer.alloc(3)], mark], /ends before its time/],
        [[["snapshots", Buffer.from([1, 0, 0, 0])], mark], /ends before its time/],
        [[["snapshots", Buffer.from([2, 0, 0, 0, 0x7b, 0x7d])], mark], /without commands/],
    ];
    for (const [messages, reason] of cases) {
        const stage = await Stage.open(await fileOf(messages));
        await stage.do(() => stage.player.seek(0));
        const [{ offset }] = stage.reader.chunks;
        assert.deepEqual([stage.errors.length, stage.given.length], [1, 0], String(reason));
        assert.match(stage.errors[0].message, reason);
        assert.equal(stage.errors[0].offset, offset);
    }
    // Nor does one without frames, and that is no error.
    const empty = await Stage.open(await fileOf([]));
    await empty.do(() => empty.player.play(1));
    assert.deepEqual([empty.errors, empty.given, empty.moment.isPlaying], [[], [], false]);
    // What cannot be carried out is as it was live: the rest is shown.
    const odd = ["commands", textOf({ cmd: "remove", id: 5 })];
    const stage = await Stage.open(await fileOf([whole, odd, mark]));
    await stage.do(() => stage.player.seek(0));
    assert.match(stage.given[0].error.message, /remove: no object 5/);
});

test("A hostile file has no more memory than there is for blocks and elements", async () => {
    const block = (number) => new Encoder().u64(number).bytes;
    const following = new Following(() => {});
    const flood = () => {
        for (let i = 0; i < 500_000; ++i) following.follow("blocks", block(7));
    };
    assert.throws(flood, /too many blocks without a command/);
    const command = { cmd: "data", data: "7 0" };
    for (const [commands, blocks, reason] of [
        [[command, command], [7], /block 7 0 is missing/],
        [[], Array(100_001).keys(), /too many blocks/],
    ]) {
        const text = new Encoder().text(JSON.stringify({ commands }));
        for (const one of blocks) text.u64(8).raw(block(one));
        assert.throws(() => commandsOf(text.bytes), reason);
    }

    const { bytes } = await recorded(5);
    const stage = await Stage.open(bytes, { elements: 100 });
    await stage.do(() => stage.player.seek(0));
    assert.match(stage.given[0].error.message, /too many elements/);
    // Of all objects together; what is gone makes room.
    const builder = new Builder({}, new Scene(1000));
    const [one, two, three] = [1, 2, 3].map(() => builder.create("line", { regular: [0, 1] }));
    const add = (id, first, size) => builder.data(id, first, { y: Array(size).fill(1) });
    for (const id of [one, two, one]) add(id, 0, 60);
    const before = contentOf(builder.scene);
    assert.throws(() => add(three, 0, 6), /too many elements/);
    assert.throws(() => add(one, 60, 6), /too many elements/);
    assert.deepEqual(contentOf(builder.scene), before);
    builder.scene.apply({ cmd: "remove", id: two }, null);
    add(three, 0, 60);
});

test("A seek reads no more than the nearest snapshot and 16 MB behind it", async () => {
    const [COUNT, MIB] = [25_000, 1024 * 1024];
    const builder = new Builder();
    const id = builder.create("line", { regular: [0, 1] });
    let [clock, file] = [10e6, null];
    const ended = (made) => (file = made);
    const recorder = new Recorder({ now: () => clock++, most: 1e9, ended });
    recorder.begin("a run", builder.scene, 1);
    for (let number = 0; number < 400; ++number) {
        const columns = { y: new Float32Array(COUNT).fill(number) };
        builder.data(id, 0, columns);
        const { data, ...members } = encode(columns);
        const command = { cmd: "data", seq: 2, id, data: `${number} 1`, first: 0, ...members };
        recorder.frame({ number, attempt: 1, commands: [[command, data]] }, builder.scene);
    }
    recorder.end();
    const bytes = await bytesOf(file);
    const { duration } = (await Stage.open(bytes)).chunks;
    for (let part = 0.1; part < 1; part += 0.1) {
        const stage = await Stage.open(bytes);
        const { frames } = await stage.do(() => stage.player.seek(part * duration));
        assert.equal(stage.scene.find(id).columns.y.at(0), frames[0]);
        // A chunk ends with the message that makes it large.
        const most = 17 * MIB + 3 * (MIB + 4 * COUNT);
        assert.ok(stage.read < most, `${stage.read} bytes of ${bytes.length}, ${most} at most`);
    }
});

test("What was read last is kept, up to a bound", async () => {
    const { bytes } = await recorded(40);
    for (const most of [0, 1e6]) {
        const { chunks, ...stage } = await Stage.open(bytes, { most });
        assert.ok(chunks.count > 3);
        for (let i = 0; i < 3; ++i) await chunks.read(i);
        const first = chunks.read(0);
        assert.equal(chunks.read(0), first, "the last one always is");
        assert.equal((await first) === (await chunks.read(0, false)), true);
        await chunks.read(1);
        assert.equal((await chunks.read(0, false)) === (await first), most > 0);
        assert.equal(stage.errors.length, 0);
    }
});

test("A server's file is read by parts, with the token, and what is no part of it is refused", async () => {
    const asked = [];
    /** At most four bytes at once. */
    const serve =
        (change = {}) =>
        async (_, { headers }) => {
            const { Range, Authorization } = headers;
            const [, from, to] = /^bytes=(\d+)-(\d+)$/.exec(Range).map(Number);
            asked.push([from, to, Authorization]);
            const { status = 206, begin = from, most = 4, size = 8 } = change;
            const end = Math.min(to + 1, from + most, 8);
            const range = `bytes ${begin}-${end - 1}/${size}`;
            const body = Buffer.from("abcdefgh").subarray(begin, end);
            return new Response(body, { status, headers: { "Content-Range": range } });
        };
    const source = await sourceOfAddress("run.mcap", async () => "t0", serve());
    assert.equal(source.size, 8);
    assert.equal(Buffer.from(await source.read(2, 6)).toString(), "cdefgh");
    assert.equal((await source.read(3, 0)).length, 0);
    assert.deepEqual(asked, [
        [0, 0, "Bearer t0"],
        [2, 7, "Bearer t0"],
        [6, 7, "Bearer t0"],
    ]);
    const change = {};
    const reach = () => sourceOfAddress("run.mcap", async () => "", serve(change));
    const changing = await reach();
    assert.deepEqual(asked.at(-1), [0, 0, undefined]);
    for (const [wrong, message] of [
        [{ status: 200 }, /gives no part of it \(200\)/],
        [{ status: 403 }, /open the link that the program printed last/],
        [{ begin: 0 }, /gives no part/],
        [{ most: 0 }, /another part/],
        [{ size: 9 }, /changed meanwhile/],
    ]) {
        Object.assign(change, { status: 206, begin: undefined, most: 4, size: 8 }, wrong);
        await assert.rejects(changing.read(2, 3), message);
    }
});
