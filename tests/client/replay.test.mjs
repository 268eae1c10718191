// What a player shows of a recording, without a page: the scene of each frame it gives.
import assert from "node:assert/strict";
import { test } from "node:test";
import { isDeepStrictEqual } from "node:util";

import { Chunks } from "../../client/page/recording/chunks.mjs";
import { CHANNELS } from "../../client/page/recording/channels.mjs";
import { textOf } from "../../client/page/recording/json.mjs";
import { MARK, STRETCHES } from "../../client/page/recording/marks.mjs";
import { Player } from "../../client/page/recording/player.mjs";
import { Reader, RecordingError } from "../../client/page/recording/reader.mjs";
import { Recorder } from "../../client/page/recording/recorder.mjs";
import { sourceOfAddress } from "../../client/page/recording/sources.mjs";
import { Survey } from "../../client/page/recording/survey.mjs";
import { Writer } from "../../client/page/recording/writer.mjs";
import { Scene } from "../../client/page/worker/scene.mjs";
import { Random } from "./figures/support/random.mjs";
import { contentOf, encode } from "./figures/support/scenes.mjs";
import { bytesOf, messagesOf, open, sourceOf } from "./support/recordings.mjs";

/** An engine that draws by chance, and a page's recorder that is told of it. */
class Run {
    scene = new Scene();
    /** What was shown with each frame: its time in milliseconds, and its content. */
    shown = [];
    random = new Random(11);
    #sequence = 0;
    #lines = new Map();
    #next = 3;
    #clock = 10e6;
    #commands = [];
    #isBegun = false;
    constructor() {
        const ended = (file) => (this.file = file);
        this.recorder = new Recorder({ now: () => this.#clock, most: 1e9, ended });
    }
    /** Of what was shown before. */
    begin() {
        this.#isBegun = true;
        this.recorder.begin("a run", this.scene, this.#sequence);
        if (this.#sequence > 0) this.#keep();
    }
    frame(draw, isWhole = false) {
        this.#clock += 1e5;
        const number = this.shown.length;
        if (isWhole) {
            this.scene = new Scene();
            this.#lines.clear();
        }
        this.#say("beginFrame", { frame: number, attempt: 1, whole: isWhole });
        if (isWhole) {
            this.#say("create", { id: 1, type: "figure" });
            this.#say("create", { id: 2, type: "axes", parent: 1 });
        }
        draw();
        const commands = this.#commands.splice(0);
        const frame = { number, attempt: 1, isWhole, commands, error: null };
        if (this.#isBegun) this.recorder.frame(frame, this.scene);
        this.#keep();
        return frame;
    }
    token(frame, outcome) {
        this.recorder.token({ ...frame, token: { command: {}, received: 0 } }, outcome, 0);
    }
    /** Somewhat of everything. */
    draw() {
        const { random } = this;
        if (this.#lines.size < 3) this.create({ keep: 1 + random.below(400), regular: [5, 2] });
        for (const id of this.#lines.keys()) {
            const chance = random.below(12);
            if (chance === 0) this.#say("set", { id, name: String(random.next()) });
            else if (chance === 1 && this.#lines.delete(id)) this.#say("remove", { id });
            else this.data(id, chance === 2 ? 1500 : random.below(200), chance < 3);
        }
    }
    create(properties) {
        const id = this.#next++;
        this.#say("create", { id, type: "line", parent: 2, ...properties });
        this.#lines.set(id, 0);
        return id;
    }
    data(id, size, isSet) {
        const first = isSet ? 0 : this.#lines.get(id);
        const values = Float32Array.from(this.random.values(size, 0, 9));
        const { count, columns, data } = encode({ y: values });
        this.#lines.set(id, first + count);
        this.#say("data", { id, data: `${++this.#next} 1`, first, count, columns }, data);
    }
    #say(cmd, members, data = null) {
        const command = { cmd, seq: ++this.#sequence, ...members };
        this.#commands.push([command, data]);
        this.scene.apply(command, data?.slice() ?? null);
    }
    #keep() {
        this.shown.push(contentOf(this.scene));
    }
}

/** A player, the clock that the test sets, and the scene of the page. */
class Stage {
    scene = new Scene();
    /** Frames that came. */
    given = [];
    moments = [];
    errors = [];
    now = 0;
    isAnswering = true;
    #timers = new Set();
    /** Bytes that were read. */
    read = 0;
    static async open(bytes, { most, near } = {}) {
        const stage = new Stage();
        stage.reader = await Reader.open(sourceOf(bytes, (length) => (stage.read += length)));
        stage.chunks = new Chunks(stage.reader, most);
        const surroundings = {
            give: (frame) => stage.#take(frame),
            moved: (moment) => stage.moments.push(moment),
            report: (error) => stage.errors.push(error),
            now: () => stage.now,
            after: (call, wait) => {
                const timer = { call, at: stage.now + wait };
                stage.#timers.add(timer);
                return () => stage.#timers.delete(timer);
            },
        };
        stage.player = new Player(stage.chunks, surroundings, near);
        return stage;
    }
    #take(frame) {
        this.given.push(frame);
        if (frame.scene) this.scene = frame.scene;
        for (const [command, data] of frame.commands) {
            if (command.whole === true) this.scene = new Scene();
            this.scene.apply(command, data);
        }
        if (this.isAnswering) queueMicrotask(() => this.player.answered());
    }
    get moment() {
        return this.moments.at(-1);
    }
    async do(call) {
        call(this.player);
        await this.player.settled();
        return this.moment;
    }
    /** Lets time pass. */
    async pass(milliseconds) {
        const end = this.now + milliseconds;
        for (;;) {
            const due = [...this.#timers].filter(({ at }) => at <= end);
            if (due.length === 0) break;
            due.sort((a, b) => a.at - b.at);
            this.#timers.delete(due[0]);
            this.now = Math.max(this.now, due[0].at);
            due[0].call();
            await this.player.settled();
        }
        this.now = Math.max(this.now, end);
    }
}

/** Its messages in chunks of this size. */
async function rechunked(file, size) {
    const writer = new Writer(CHANNELS, size);
    for (const { channel, time, data } of await messagesOf(await open(await bytesOf(file)))) {
        writer.add(channel, time, [data]);
    }
    return bytesOf(writer.end());
}

/** A run, and its file. */
async function recorded(frames = 120) {
    const run = new Run();
    run.frame(() => run.draw(), true);
    run.shown = [];
    run.begin();
    while (run.shown.length < frames) run.frame(() => run.draw(), run.shown.length === 70);
    run.recorder.end();
    return { run, bytes: await rechunked(run.file, 3000) };
}

for (const near of [undefined, 0]) {
    test(`Whatever way a frame is reached, it shows what was shown (${near})`, async () => {
        const { run, bytes } = await recorded();
        const stage = await Stage.open(bytes, { most: near, near });
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
        // What stands before the first frame is one, too.
        await stage.do(() => player.seek(times[1]));
        await stage.do(() => player.step(-1));
        assert.deepEqual(contentOf(stage.scene), run.shown[0]);
    });
}

test("It plays at the clock's pace, leaves out what the page has no time for, and ends", async () => {
    // A frame each 100 ms.
    const { run, bytes } = await recorded(21);
    const stage = await Stage.open(bytes);
    const { player, given, moments } = stage;
    await stage.do(() => player.play(2));
    assert.equal(given.length, 1);
    await stage.pass(510);
    assert.deepEqual([given.length, stage.moment.frame], [11, 10]);
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

    // From the beginning again; each frame.
    given.length = 0;
    moments.length = 0;
    await stage.do(() => player.play(Infinity));
    assert.ok(given.length === 21 && given.every(({ number }, i) => number === i));
    assert.equal(stage.moment.isPlaying, false);
});

test("Of the moments that somebody scrubs over the last one is gone to; each step counts", async () => {
    const { run, bytes } = await recorded(30);
    const stage = await Stage.open(bytes);
    const { player, given } = stage;
    await stage.do(() => {
        for (let time = 0; time < 2000; time += 100) player.seek(time);
    });
    assert.ok(given.length <= 2);
    assert.equal(stage.moment.time, 1900);
    const { number } = given.at(-1);
    await stage.do(() => {
        player.step(1);
        player.step(1);
        player.step(1);
        player.step(-1);
    });
    assert.deepEqual(contentOf(stage.scene), run.shown[given.at(-1).number]);
    assert.equal(given.at(-1).number, number + 2);
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
    const survey = new Survey(chunks);
    const found = [];
    for (const isSurveyed of [false, true]) {
        if (isSurveyed) {
            while (await survey.next());
            player.isCalm = (chunk) => survey.isCalm(chunk);
        }
        await stage.do(() => player.seek(0));
        stage.read = 0;
        for (let i = 0; i < 4; ++i) {
            const { why, frame, time } = await stage.do(() => player.nextTrouble());
            if (i < 3) found.push([frame, why, Math.floor((time / chunks.duration) * STRETCHES)]);
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
    await stage.do(() => player.seek(behind));
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

test("A server's file is read by parts, and one that comes whole is refused", async () => {
    const asked = [];
    const serve =
        (status) =>
        async (_, { headers }) => {
            asked.push(headers.Range);
            const [, from, to] = /^bytes=(\d+)-(\d+)$/.exec(headers.Range).map(Number);
            const range = `bytes ${from}-${Math.min(to, 7)}/8`;
            const body = Buffer.from("abcdefgh").subarray(from, to + 1);
            return new Response(body, { status, headers: { "Content-Range": range } });
        };
    const source = await sourceOfAddress("run.mcap", serve(206));
    assert.equal(source.size, 8);
    assert.equal(Buffer.from(await source.read(2, 3)).toString(), "cde");
    assert.equal((await source.read(3, 0)).length, 0);
    assert.deepEqual(asked, ["bytes=0-0", "bytes=2-4"]);
    await assert.rejects(sourceOfAddress("run.mcap", serve(200)), /gives no part/);
});
