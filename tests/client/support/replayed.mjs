// A run that is recorded, and a player of its recording, without a page.
import { Chunks } from "../../../client/page/recording/chunks.mjs";
import { CHANNELS } from "../../../client/page/recording/channels.mjs";
import { Player } from "../../../client/page/recording/player.mjs";
import { Reader } from "../../../client/page/recording/reader.mjs";
import { Recorder } from "../../../client/page/recording/recorder.mjs";
import { Track } from "../../../client/page/recording/track.mjs";
import { Writer } from "../../../client/page/recording/writer.mjs";
import { Scene } from "../../../client/page/worker/scene.mjs";
import { Random } from "../figures/support/random.mjs";
import { contentOf, encode } from "../figures/support/scenes.mjs";
import { bytesOf, messagesOf, open, sourceOf } from "./recordings.mjs";

/** An engine that draws by chance, and a page's recorder that is told of it. */
export class Run {
    scene = new Scene();
    /** What was shown with each frame: its time in milliseconds, and its content. */
    shown = [];
    random = new Random(11);
    #sequence = 0;
    #lines = new Map();
    #next = 3;
    #clock = 10e6;
    #pause;
    #commands = [];
    #isBegun = false;
    /** @param {number} [pause] milliseconds between two frames */
    constructor(pause = 100) {
        this.#pause = pause * 1000;
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
        this.#clock += this.#pause;
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
        this.recorder.token({ ...frame, token: { command: {}, received: 3 } }, outcome, 7);
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
export class Stage {
    scene = new Scene();
    /** Frames that came. */
    given = [];
    moments = [];
    errors = [];
    tracks = [];
    now = 0;
    isAnswering = true;
    #timers = new Set();
    /** Bytes that were read. */
    read = 0;
    /** Of one recording, or of several beside each other. */
    static async open(files, options = {}) {
        const stage = new Stage();
        for (const [side, bytes] of [files].flat().entries()) {
            await stage.#add(bytes, { side, name: `${side}.mcap`, ...options });
        }
        return stage;
    }
    async #add(bytes, { most, ...options }) {
        this.reader = await Reader.open(sourceOf(bytes, (length) => (this.read += length)));
        this.chunks = new Chunks(this.reader, most);
        this.track = new Track(this.chunks, options);
        this.tracks.push(this.track);
        this.player = new Player(this.tracks, {
            give: (frame) => this.#take(frame),
            moved: (moment) => this.moments.push(moment),
            report: (error) => this.errors.push(error),
            now: () => this.now,
            after: (call, wait) => {
                const timer = { call, at: this.now + wait };
                this.#timers.add(timer);
                return () => this.#timers.delete(timer);
            },
        });
    }
    #take(frame) {
        this.given.push(frame);
        for (const { side, scene } of frame.scenes ?? []) {
            this.scene = this.scene.withSide(side, scene);
        }
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
export async function rechunked(file, size) {
    const writer = new Writer(CHANNELS, size);
    for (const { channel, time, data } of await messagesOf(await open(await bytesOf(file)))) {
        writer.add(channel, time, [data]);
    }
    return bytesOf(writer.end());
}

/** A run, and its file. */
export async function recorded(frames = 120, pause = 100, whole = 70) {
    const run = new Run(pause);
    run.frame(() => run.draw(), true);
    run.shown = [];
    run.begin();
    while (run.shown.length < frames) run.frame(() => run.draw(), run.shown.length === whole);
    run.recorder.end();
    return { run, bytes: await rechunked(run.file, 3000) };
}
