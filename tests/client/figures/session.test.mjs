// The worker's middle, between a scripted gateway and a main thread that the test plays.
import assert from "node:assert/strict";
import { EventEmitter, once } from "node:events";
import { afterEach, beforeEach, test } from "node:test";

import { VOCABULARY } from "../../../client/page/messages.mjs";
import { Session } from "../../../client/page/worker/session.mjs";
import { WebSocket } from "../support/packages.mjs";
import { ScriptedGateway } from "../support/scripted_gateway.mjs";
import { FakeCanvas, THEME, encode, spell } from "./support/scenes.mjs";

const CONFIGURATION = {
    vocabulary: VOCABULARY,
    commands: "/c",
    blocks: "/b",
    ready: "/r",
    newView: "/n",
    events: "/e",
};

/** A session, its gateway, and its main thread, which lays out and confirms by itself. */
class Stage {
    told = [];
    canvases = new Map();
    isMainThere = true;
    #news = new EventEmitter();
    #frames = [];
    #number = 0;
    #sequence = 0;
    #block = 3;
    async begin(configuration = CONFIGURATION) {
        this.gateway = await ScriptedGateway.start();
        this.session = new Session({
            post: (message) => this.#receive(message),
            onFrame: (call) => {
                this.#frames.push(call);
                this.#news.emit("news");
            },
            afterPaint: (call) => call(),
            now: () => 1e6,
            options: { WebSocket, backoff: { first: 0, soon: 0, most: 0 } },
        });
        this.tell({ kind: "start", address: this.gateway.url, theme: THEME, hidden: false });
        await this.meet({ configuration });
    }
    /** The page's next connection. */
    async meet(welcome) {
        this.peer = await this.gateway.peer();
        await this.peer.welcome({ blockChannels: ["/b"], ...welcome });
    }
    end() {
        this.tell({ kind: "close" });
        this.gateway.stop();
    }
    tell(message) {
        this.session.receive(message);
    }
    #receive(message) {
        this.told.push(message);
        this.#news.emit("news");
        if (message.kind === "ask") this.tell({ kind: "told", id: message.id, value: "secret" });
        if (message.kind === "scene" && this.isMainThere) this.layOut(message);
        if (message.kind === "frame" && this.isMainThere) {
            queueMicrotask(() => this.tell({ ...message, kind: "painted" }));
        }
    }
    layOut({ stamp, figures }) {
        for (const { id } of figures.flatMap(({ axes }) => axes)) {
            if (this.canvases.has(id)) continue;
            const canvas = new FakeCanvas();
            this.canvases.set(id, canvas);
            this.tell({ kind: "canvas", axes: id, canvas, width: 100, height: 50, ratio: 2 });
        }
        this.tell({ kind: "laid", stamp });
    }
    /** Ends when the worker has said such a message, which it has not been asked for before. */
    async heard(kind) {
        for (;;) {
            const at = this.told.findIndex((message) => message.kind === kind);
            if (at >= 0) return this.told.splice(at, 1)[0];
            await once(this.#news, "news");
        }
    }
    /** Ends when the page has handled everything before. */
    async settled() {
        this.peer.control({ t: "refused", what: "test", channel: "/", reason: "" });
        await this.heard("error");
    }
    /** Runs the next animation frame. */
    async paint() {
        while (this.#frames.length === 0) await once(this.#news, "news");
        for (const call of this.#frames.splice(0)) call();
    }
    /** Paints until the worker has said such a message. */
    async painted(kind) {
        while (!this.told.some((message) => message.kind === kind)) {
            if (this.#frames.length > 0) await this.paint();
            else await once(this.#news, "news");
        }
        return this.heard(kind);
    }
    raw(text) {
        this.peer.batch(++this.#number, [["/c", text]]);
    }
    say(cmd, members) {
        this.raw(JSON.stringify({ seq: ++this.#sequence, ...members, cmd }));
    }
    data(id, first, values) {
        const { count, columns, data } = encode(values);
        const block = ++this.#block;
        this.peer.piece(block, ++this.#number, [block, 0, 0, 0, 0, 0, 0, 0, ...data]);
        this.say("data", { id, data: `${block} 0`, first, count, columns });
    }
    /** The frame that has begun is complete. */
    act(token) {
        const command = { cmd: "sendACT", ACT: token, returnChannel: "/t", serverSendTS: 9 };
        this.raw(JSON.stringify(command));
    }
    /** A frame of what `draw` says. */
    frame(draw, members) {
        this.say("beginFrame", { frame: 9, attempt: 1, ...members });
        draw();
        this.act("t");
    }
    /** A whole frame with figure 1, axes 2 and a line 3 from (0, 0) to (1, 1). */
    whole(token) {
        this.say("beginFrame", { frame: 8, attempt: 2, whole: true, keys: true });
        this.say("create", { id: 1, type: "figure" });
        this.say("create", { id: 2, type: "axes", parent: 1, picks: true, y: { limits: [0, 1] } });
        this.say("create", { id: 3, type: "line", parent: 2 });
        this.data(3, 0, { x: [0, 1], y: [0, 1] });
        this.act(token);
    }
    /** What the page published next: its channel and its content. */
    async published() {
        const { channel, text } = await this.peer.next("publish");
        return [channel, JSON.parse(text)];
    }
    /** What the page published until a token went back, that last. */
    async answers() {
        const all = [];
        do all.push(await this.published());
        while (all.at(-1)[0] !== "/t");
        return all;
    }
    /** Until the line is on the screen. */
    async show() {
        for (const channel of ["/n", "/r"]) assert.equal((await this.published())[0], channel);
        this.whole("first");
        await this.paint();
        assert.deepEqual(
            (await this.answers()).map(([channel]) => channel),
            ["/e", "/t"],
        );
        this.told = [];
    }
    strokes() {
        return this.canvases.get(2).drawn.map(({ path }) => spell(path));
    }
}

let stage;
beforeEach(async () => {
    stage = new Stage();
    await stage.begin();
});
afterEach(() => stage.end());

const LINE = "M0,100 L200,0";

test("A view is announced, and a frame drawn once it is complete and laid out, then answered", async () => {
    assert.ok(stage.peer.offered.includes("kiroweb.token.secret"));
    assert.deepEqual((await stage.heard("hello")).known, true);
    assert.deepEqual(stage.peer.hello.subscribe, []);
    assert.deepEqual((await stage.peer.next("subscribe")).channels, ["/c", "/b"]);
    assert.equal((await stage.published())[0], "/n");
    assert.deepEqual(await stage.published(), ["/r", { binaryChannelStatus: 1, useFastBinary: 1 }]);
    stage.isMainThere = false;
    stage.whole("token");
    const scene = await stage.heard("scene");
    await stage.paint();
    assert.ok(stage.told.every(({ kind }) => kind !== "frame"));
    const [{ axes }] = scene.figures;
    const { limits, picks, legend, series } = axes[0];
    assert.deepEqual(limits, { x: [0, 1], y: [0, 1], y2: null });
    assert.deepEqual([scene.keys, picks, legend, series[0].color], [true, true, false, "#0068ad"]);
    stage.layOut(scene);
    await stage.paint();
    assert.deepEqual(stage.strokes(), [LINE]);
    const frame = await stage.heard("frame");
    assert.deepEqual([frame.frame, frame.limits[2].x], [8, [0, 1]]);
    stage.tell({ ...frame, kind: "painted" });
    const event = { event: "frame", frame: 8, attempt: 2, outcome: "painted" };
    const stamps = { serverSendTS: 9, clientReceiveTS: 1e6, clientSendTS: 1e6 };
    const token = ["/t", { ACT: "token", ...stamps }];
    assert.deepEqual(await stage.answers(), [["/e", event], token]);
});

const UNREADABLE = '{"cmd":"binarydata","data":{"99 0":"!"}}';
const BROKEN = {
    set() {
        throw new Error("a broken canvas");
    },
};
const FAULTS = [
    [() => stage.say("set", { id: 3, width: "wide" }), /set: "width" is not a size/],
    [() => stage.say("data", { id: 3, data: "99 0" }) ?? stage.raw(UNREADABLE), /"99 0":"!"/],
    [() => Object.defineProperty(stage.canvases.get(2), "width", BROKEN), /paint: a broken canvas/],
];

test("What cannot be read, carried out or drawn costs its frame, and is asked for again once", async () => {
    await stage.show();
    const told = [];
    for (const [cause, reason] of FAULTS) {
        stage.frame(() => {
            cause();
            stage.say("set", { id: 3, name: String(reason) });
        });
        await stage.paint();
        told.push(...(await stage.answers()));
        const [channel, { event, frame, outcome, error }] = told.at(-2);
        assert.deepEqual([channel, event, frame, outcome], ["/e", "frame", 9, "failed"]);
        assert.match(error, reason);
        assert.ok(stage.told.some(({ kind, text }) => kind === "error" && reason.test(text)));
    }
    assert.equal(told.filter(([channel]) => channel === "/n").length, 1);
    assert.deepEqual(stage.strokes(), [LINE]);
});

test("The old picture stays while a whole frame is coming", async () => {
    await stage.show();
    stage.say("beginFrame", { frame: 9, attempt: 1, whole: true });
    stage.say("create", { id: 1, type: "figure" });
    await stage.settled();
    stage.tell({ kind: "resize", axes: 2, width: 50, height: 50, ratio: 1 });
    await stage.paint();
    assert.deepEqual(stage.strokes(), ["M0,50 L50,0"]);
    stage.act("t");
    const { keys, figures } = await stage.heard("scene");
    assert.deepEqual([keys, figures[0].axes], [false, []]);
});

test("A picture that is paused stays, while the data are taken in; live shows what is there", async () => {
    await stage.show();
    stage.tell({ kind: "pause", paused: true });
    await stage.paint();
    stage.frame(() => stage.data(3, 2, { x: [2], y: [0.5] }));
    assert.equal((await stage.answers())[0][1].outcome, "paused");
    stage.tell({ kind: "view", axes: 2, x: [0, 2], y: null, y2: null });
    await stage.paint();
    assert.deepEqual(stage.strokes(), ["M0,100 L100,0"]);
    stage.tell({ kind: "pause", paused: false });
    await stage.paint();
    assert.deepEqual(stage.strokes(), ["M0,100 L100,0 L200,50"]);
});

test("Somebody's doings reach the engine", async () => {
    await stage.show();
    stage.frame(() => stage.say("set", { id: 2, y2: { limits: [3, 4] } }));
    await stage.paint();
    await stage.answers();
    const limits = { event: "limits", axes: 2, y: [0, 1], y2: [5, 6], width: 100, height: 50 };
    for (const [message, event] of [
        [
            { kind: "pick", axes: 2, x: 0.5, y: 1, near: { series: 3, index: 1 } },
            { event: "pick", axes: 2, x: 0.5, y: 1, series: 3, index: 1 },
        ],
        [
            { kind: "key", key: "k", axes: null },
            { event: "key", key: "k", axes: null },
        ],
        [
            { kind: "control", id: 7 },
            { event: "control", id: 7 },
        ],
        [
            { kind: "view", axes: 2, x: [0, 2], y: null, y2: [5, 6] },
            { ...limits, x: [0, 2] },
        ],
    ]) {
        stage.tell(message);
        assert.deepEqual(await stage.published(), ["/e", event]);
    }
    await stage.paint();
    assert.deepEqual(stage.strokes(), ["M0,100 L100,0"]);
});

test("The legend hides a series, until it is gone; a theme changes colours", async () => {
    await stage.show();
    stage.tell({ kind: "view", axes: 2, x: null, y: null, y2: null });
    assert.equal((await stage.published())[1].home, true);
    stage.tell({ kind: "visible", series: 3, visible: false });
    await stage.paint();
    assert.equal((await stage.heard("scene")).figures[0].axes[0].series[0].visible, false);
    assert.deepEqual(stage.strokes(), []);
    stage.say("remove", { id: 3 });
    stage.say("create", { id: 3, type: "line", parent: 2 });
    stage.act("t");
    const [series] = (await stage.heard("scene")).figures[0].axes[0].series;
    assert.equal(series.visible, false);
    stage.tell({ kind: "theme", theme: { ...THEME, dark: true } });
    assert.equal((await stage.heard("scene")).figures[0].axes[0].series[0].color, "#5ab4f0");
});

test("A vocabulary that is not known is not subscribed to", async () => {
    const other = new Stage();
    await other.begin({ ...CONFIGURATION, vocabulary: "kirofigures/9" });
    assert.equal((await other.heard("hello")).known, false);
    other.tell({ kind: "key", key: "k", axes: null });
    // What is subscribed and published comes in order; of these there is nothing before the echo.
    assert.equal((await other.peer.next("echo")).t, "echo");
    other.end();
});

test("What is recorded is what came and went, from the press of a button on", async () => {
    await stage.show();
    stage.tell({ kind: "record", most: 1e6 });
    stage.frame(() => stage.data(3, 2, { x: [2], y: [0.5] }));
    await stage.paint();
    await stage.answers();
    stage.tell({ kind: "key", key: "k", axes: null });
    stage.peer.socket.terminate();
    await stage.meet({ configuration: CONFIGURATION, kind: "return" });
    await stage.settled();
    stage.tell({ kind: "record", most: null });
    const { file, reason } = await stage.heard("recorded");
    assert.equal(reason, "");
    const text = Buffer.from(await file.arrayBuffer()).toString("latin1");
    // In this order.
    const parts = [
        /"event":"begin"/,
        /"frame":8,"seq":5,"commands":\[{"seq":1,"cmd":"beginFrame"/,
        /"frame":9,"attempt":1,"cmd":"beginFrame"/,
        /"data":"5 0","first":2/,
        /"frame":9,"attempt":1,"kind":"changes","bytes":\d+,"seq":7}/,
        /"outcome":"painted","reason":"","serverSend":9,"clientReceive":1000000,"clientSend":1000000/,
        /"event":"key","key":"k"/,
        /"event":"gone"/,
        /"event":"return"/,
        /"error":"test/,
    ];
    let at = 0;
    for (const part of parts) {
        const found = text.slice(at).search(part);
        assert.ok(found >= 0, String(part));
        at += found;
    }
});

test("A recording takes the engine's place, and shows what was shown", async () => {
    await stage.show();
    stage.tell({ kind: "record", most: 1e6 });
    const shown = [stage.strokes()];
    for (let i = 0; i < 3; ++i) {
        const draw = () => stage.data(3, 2 + i, { x: [2 + i], y: [0.5 / (i + 1)] });
        stage.frame(draw, { frame: 9 + i, keys: true });
        await stage.paint();
        await stage.answers();
        shown.push(stage.strokes());
    }
    assert.equal(new Set(shown.map(String)).size, 4);
    stage.tell({ kind: "record", most: null });
    const { file } = await stage.heard("recorded");
    // What somebody looked at says nothing about another run.
    stage.tell({ kind: "view", axes: 2, x: [0, 1], y: null, y2: null });
    stage.told = [];
    stage.tell({ kind: "replay", file });
    assert.equal((await stage.heard("hello")).configuration.title, "");
    assert.equal(await stage.peer.closed, 1000);
    const { duration } = await stage.heard("recording");
    assert.ok(duration >= 0);
    for (const strokes of shown) {
        await stage.painted("moment");
        assert.deepEqual(stage.strokes(), strokes);
        stage.tell({ kind: "player", wish: { do: "step", by: 1 } });
    }
    stage.tell({ kind: "key", key: "k", axes: null });
    stage.tell({ kind: "player", wish: { do: "seek", time: 0 } });
    await stage.painted("moment");
    assert.deepEqual(stage.strokes(), shown[0]);
    assert.ok(stage.told.every(({ kind }) => kind !== "error"));
    // One that is none ends the replay.
    stage.told = [];
    stage.tell({ kind: "replay", file: new Blob(["no recording"]) });
    assert.match((await stage.heard("error")).text, /offset 0: this is no recording/);
    assert.equal(stage.told.filter(({ kind }) => kind === "state").at(-1).name, "closed");
});
