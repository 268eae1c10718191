// What a player shows of a recording, without a page: the scene of each frame it gives.
import assert from "node:assert/strict";
import { test } from "node:test";

import { Chunks } from "../../client/page/recording/chunks.mjs";
import { CHANNELS } from "../../client/page/recording/channels.mjs";
import { textOf } from "../../client/page/recording/json.mjs";
import { MARK, STRETCHES } from "../../client/page/recording/marks.mjs";
import { Player } from "../../client/page/recording/player.mjs";
import { Reader, RecordingError } from "../../client/page/recording/reader.mjs";
import { Recorder } from "../../client/page/recording/recorder.mjs";
import { Survey } from "../../client/page/recording/survey.mjs";
import { Writer } from "../../client/page/recording/writer.mjs";
import { Scene } from "../../client/page/worker/scene.mjs";
import { Random } from "./figures/support/random.mjs";
import { encode } from "./figures/support/scenes.mjs";

/** What a scene has, by values. */
const contentOf = (scene) =>
    scene.items.map(({ id, type, parent, properties, columns, given }) => {
        const kept = Object.entries(columns).map(([name, column]) => {
            const { elements, offset, begin, end } = column;
            const values = [...elements.subarray(begin - offset, end - offset)];
            return [name, elements.constructor.name, begin, values, column.isSorted];
        });
        return [id, type, parent?.id, { ...properties }, kept.sort(), given];
    });

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
    constructor() {
        const ended = (file) => (this.file = file);
        this.recorder = new Recorder({ now: () => this.#clock, most: 1e9, ended });
    }
    /** Of what was shown before. */
    begin() {
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
        this.recorder.frame(frame, this.scene);
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
            else this.data(id, random.values(random.below(200), 0, 9), chance === 2);
        }
    }
    create(properties) {
        const id = this.#next++;
        this.#say("create", { id, type: "line", parent: 2, ...properties });
        this.#lines.set(id, 0);
        return id;
    }
    data(id, values, isSet = false) {
        const first = isSet ? 0 : this.#lines.get(id);
        const { count, columns, data } = encode({ y: Float32Array.from(values) });
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
    static async open(file, most) {
        const bytes = file instanceof Blob ? new Uint8Array(await file.arrayBuffer()) : file;
        const read = async (offset, length) => bytes.subarray(offset, offset + length);
        const stage = new Stage();
        stage.reader = await Reader.open({ size: bytes.length, read });
        stage.chunks = new Chunks(stage.reader, most);
        stage.player = new Player(stage.chunks, {
            give: (frame) => stage.#take(frame),
            moved: (moment) => stage.moments.push(moment),
            report: (error) => stage.errors.push(error),
            now: () => stage.now,
            after: (call, wait) => {
                const timer = { call, at: stage.now + wait };
                stage.#timers.add(timer);
                return () => stage.#timers.delete(timer);
            },
        });
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
            this.now = due[0].at;
            due[0].call();
            await this.player.settled();
        }
        this.now = end;
    }
}

function recorded(frames = 120) {
    const run = new Run();
    run.frame(() => run.draw(), true);
    run.shown = [];
    run.begin();
    while (run.shown.length < frames) run.frame(() => run.draw(), run.shown.length === 70);
    run.recorder.end();
    return run;
}

test("Whatever way a frame is reached, it shows what was shown", async () => {
    const run = recorded();
    const stage = await Stage.open(run.file, 0);
    const { player, chunks } = stage;
    const times = [];
    await stage.do(() => player.seek(-5));
    for (const content of run.shown) {
        assert.deepEqual(contentOf(stage.scene), content, `step ${times.length}`);
        times.push(stage.moment.time);
        await stage.do(() => player.step(1));
    }
    assert.equal(new Set(times).size, run.shown.length);
    assert.ok(chunks.duration >= times.at(-1));
    // Behind the last one there is nothing.
    assert.equal(stage.given.length, run.shown.length);
    // There are several snapshots to begin from.
    const all = await Promise.all(chunks.reader.chunks.map((_, i) => chunks.read(i)));
    const numSnapshots = all.flat().filter((one) => chunks.topicOf(one) === "snapshots").length;
    assert.ok(numSnapshots > 2, `${numSnapshots}`);
    for (let i = 0; i < 150; ++i) {
        const wanted = run.random.below(times.length);
        await stage.do(() => player.seek(times[wanted]));
        assert.deepEqual(contentOf(stage.scene), run.shown[wanted], `frame ${wanted}`);
        const by = i % 2 ? 1 : -1;
        await stage.do(() => player.step(by));
        const beside = Math.min(Math.max(wanted + by, 0), times.length - 1);
        assert.deepEqual(contentOf(stage.scene), run.shown[beside], `beside ${wanted}`);
    }
    assert.deepEqual(stage.errors, []);
});
