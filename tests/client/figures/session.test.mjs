// The worker's middle, between a scripted gateway and a main thread that the test plays.
import assert from "node:assert/strict";
import { EventEmitter, once } from "node:events";
import { afterEach, beforeEach, test } from "node:test";

import { Session } from "../../../client/page/worker/session.mjs";
import { CONFIGURATION, Engine } from "../support/engine.mjs";
import { WebSocket } from "../support/packages.mjs";
import { ScriptedGateway } from "../support/scripted_gateway.mjs";
import { FakeCanvas, THEME, spell } from "./support/scenes.mjs";

const { commands, blocks, ready, newView, events } = CONFIGURATION;

/** A session, its engine, and its main thread, which lays out and confirms by itself. */
class Stage {
    told = [];
    canvases = new Map();
    pictures = {};
    isMainThere = true;
    now = 1e6;
    #news = new EventEmitter();
    #frames = [];
    async begin(configuration = CONFIGURATION) {
        this.gateway = await ScriptedGateway.start();
        this.gateway.clocks = { time: this.now, engineAhead: 5e6, uncertainty: 1e3 };
        this.session = new Session({
            post: (message) => this.#receive(message),
            onFrame: (call) => {
                this.#frames.push(call);
                this.#news.emit("news");
            },
            afterPaint: (call) => call(),
            now: () => ++this.now,
            options: { WebSocket, backoff: { first: 0, soon: 0, most: 0 } },
        });
        this.tell({ kind: "start", address: this.gateway.url, theme: THEME, hidden: false });
        this.engine = new Engine();
        this.engine.listens = true;
        await this.engine.meet(this.gateway, { configuration });
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
        if (message.kind === "frame") Object.assign(this.pictures, message.pictures);
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
    /** Ends when the page has handled everything before, with no error that nobody waited for. */
    async settled() {
        this.now += 1e6; // An error that is the same would not be told again so soon.
        this.engine.peer.control({ t: "refused", what: "test", channel: "/", reason: "" });
        assert.equal((await this.heard("error")).text, "test /: ");
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
    /** A whole frame with figure 1, axes 2 and a line 3 from (0, 0) to (1, 1). */
    whole() {
        const { engine } = this;
        engine.draw(() => {
            engine.create(1, "figure");
            engine.create(2, "axes", 1, { picks: true, y: { limits: [0, 1] } });
            engine.create(3, "line", 2);
            engine.data(3, { x: [0, 1], y: [0, 1] });
        }, true);
    }
    /** What the page published next: its channel and its content. */
    async published() {
        const { channel, text } = await this.engine.until(() => true);
        return [channel, JSON.parse(text)];
    }
    /** What the page published until a token went back, that last. */
    async answers() {
        const all = [];
        do all.push(await this.published());
        while (all.at(-1)[0] !== "/back");
        return all;
    }
    /** A frame that is painted. */
    async frame(draw) {
        this.engine.draw(draw);
        await this.paint();
        return this.answers();
    }
    /** Until the line is on the screen. */
    async show() {
        for (const channel of [newView, ready]) assert.equal((await this.published())[0], channel);
        this.whole();
        await this.paint();
        await this.answers();
        this.told = [];
    }
    strokes() {
        return (this.pictures[2] ?? this.canvases.get(2)).drawn.map(({ path }) => spell(path));
    }
}

let stage;
beforeEach(async () => {
    globalThis.OffscreenCanvas = FakeCanvas;
    stage = new Stage();
    await stage.begin();
});
afterEach(() => stage.end());

test("A view is announced, and a frame drawn once it is complete and laid out, then answered", async () => {
    const { engine } = stage;
    assert.ok(engine.peer.offered.includes("kiroweb.token.secret"));
    assert.deepEqual((await stage.heard("hello")).known, true);
    assert.deepEqual(engine.peer.hello.subscribe, []);
    assert.deepEqual((await engine.peer.next("subscribe")).channels, [commands, blocks]);
    assert.equal((await stage.published())[0], newView);
    const status = { binaryChannelStatus: 1, useFastBinary: 1 };
    assert.deepEqual(await stage.published(), [ready, status]);
    stage.isMainThere = false;
    stage.whole();
    const scene = await stage.heard("scene");
    await stage.paint();
    assert.ok(stage.told.every(({ kind }) => kind !== "frame"));
    const { limits, picks, legend, series } = scene.figures[0].axes[0];
    assert.deepEqual(limits, { x: [0, 1], y: [0, 1], y2: null });
    assert.deepEqual([scene.keys, picks, legend, series[0].color], [true, true, false, "#0068ad"]);
    stage.layOut(scene);
    await stage.paint();
    assert.deepEqual(stage.strokes(), ["M0,100 L200,0"]);
    const frame = await stage.heard("frame");
    assert.deepEqual([frame.frame, frame.limits[2].x], [0, [0, 1]]);
    stage.tell({ ...frame, kind: "painted" });
    const [[, event], [channel, token]] = await stage.answers();
    const { clientPaint, clientSend, ...said } = event;
    assert.deepEqual(said, { event: "frame", frame: 0, attempt: 1, outcome: "painted" });
    const { clientReceiveTS, ...reply } = token;
    assert.deepEqual(reply, { ACT: 0, serverSendTS: 9, clientSendTS: clientSend });
    // By the engine's clock.
    assert.ok(5e6 < clientReceiveTS && clientReceiveTS < clientPaint && clientPaint < clientSend);
    assert.equal(channel, "/back");
    stage.tell({ kind: "latency", id: 5 });
    const { total, columns, clock } = await stage.heard("latency");
    const stamps = Object.values(columns).map(([stamp]) => stamp);
    assert.deepEqual(
        [total, ...stamps],
        [1, (clientSend - clock.shift) / 1000, 9, clientReceiveTS, clientPaint, clientSend, 0],
    );
});

const UNREADABLE = '{"cmd":"binarydata","data":{"99 0":"!"}}';
const breakCanvas = () =>
    Object.defineProperty(stage.canvases.get(2), "width", {
        set() {
            throw new Error("a broken canvas");
        },
    });

test("What cannot be read, carried out or drawn costs its frame, and is asked for again once", async () => {
    await stage.show();
    const { engine } = stage;
    const told = [];
    for (const [cause, reason] of [
        [() => engine.say("set", { id: 3, width: "wide" }), /set: "width" is not a size/],
        [() => engine.say("data", { id: 3, data: "99 0" }) ?? engine.raw(UNREADABLE), /"99 0":"!"/],
        [breakCanvas, /paint: a broken canvas/],
    ]) {
        const more = () => engine.say("set", { id: 3, name: String(reason) });
        told.push(...(await stage.frame(() => [cause(), more()])));
        const [channel, { event, outcome, error }] = told.at(-2);
        assert.deepEqual([channel, event, outcome], [events, "frame", "failed"]);
        assert.match(error, reason);
        assert.ok(stage.told.some(({ kind, text }) => kind === "error" && reason.test(text)));
    }
    assert.equal(told.filter(([channel]) => channel === newView).length, 1);
    assert.deepEqual(stage.strokes(), ["M0,100 L200,0"]);
});

test("The old picture stays while a whole frame is coming", async () => {
    await stage.show();
    const { engine } = stage;
    engine.listens = false;
    const frame = engine.begin(true);
    engine.create(1, "figure");
    await stage.settled();
    stage.tell({ kind: "resize", axes: 2, width: 50, height: 50, ratio: 1 });
    await stage.paint();
    assert.deepEqual(stage.strokes(), ["M0,50 L50,0"]);
    engine.act(frame);
    const { keys, figures } = await stage.heard("scene");
    assert.deepEqual([keys, figures[0].axes], [false, []]);
});

test("A frame that a lost connection cuts goes on when the page returns, and is gone with its view", async (t) => {
    const waiting = [];
    const { setTimeout } = globalThis;
    t.mock.method(globalThis, "setTimeout", (call, ms) =>
        ms === 50 ? waiting.push(call) : setTimeout(call, ms),
    );
    await stage.show();
    const { engine } = stage;
    const fail = () => engine.say("remove", { id: 99 });
    /** Loses the connection with a frame that is not painted, and one that is not complete. */
    const cut = async (kind) => {
        engine.draw(() => engine.say("set", { id: 1, title: kind }));
        const frame = engine.begin();
        fail();
        await stage.settled();
        engine.peer.socket.terminate();
        await engine.meet(stage.gateway, { kind });
        return frame;
    };
    const next = async () => {
        await stage.paint();
        const { frame, outcome } = (await stage.answers()).at(-2)[1];
        return `${frame} ${outcome}`;
    };
    engine.act(await cut("return"));
    stage.whole();
    for (const one of ["1 painted", "2 failed", "3 painted"]) assert.equal(await next(), one);
    assert.match((await stage.heard("error")).text, /^remove/);
    await cut("first");
    stage.whole();
    await stage.settled();
    assert.equal(await next(), "6 painted");
    fail();
    await stage.settled();
    stage.tell({ kind: "close" });
    for (const call of waiting) call();
    assert.ok(stage.told.every(({ kind }) => kind !== "error"));
});

test("A picture that is paused stays, while the data are taken in; live shows what is there", async () => {
    await stage.show();
    stage.tell({ kind: "pause", paused: true });
    await stage.paint();
    stage.engine.draw(() => stage.engine.data(3, { x: [2], y: [0.5] }, 2));
    assert.equal((await stage.answers())[0][1].outcome, "paused");
    const seen = async (message) => {
        stage.tell(message);
        await stage.paint();
        return stage.strokes().join();
    };
    const view = { kind: "view", axes: 2, x: [0, 2], y: null, y2: null };
    assert.equal(await seen(view), "M0,100 L100,0");
    assert.equal(await seen({ kind: "pause", paused: false }), "M0,100 L100,0 L200,50");
});

test("What somebody looks at is told to the engine, with its second y axis", async () => {
    await stage.show();
    await stage.frame(() => stage.engine.say("set", { id: 2, y2: { limits: [3, 4] } }));
    const limits = { axes: 2, x: [0, 2], y: [0, 1], y2: [5, 6] };
    stage.tell({ kind: "view", ...limits, y: null });
    const event = { event: "limits", ...limits, width: 100, height: 50 };
    assert.deepEqual(await stage.published(), [events, event]);
});

test("What somebody looks at comes with its limits, at once; so do all axes that follow", async (t) => {
    await stage.show();
    const { engine } = stage;
    /** Axes, not linked, with a line that has the next number. */
    const add = (axes) => {
        engine.create(axes, "axes", 1);
        engine.create(axes + 1, "line", axes);
        engine.data(axes + 1, { x: [0, 1], y: [0, 1] });
    };
    await stage.frame(() => add(4));
    const canvases = [2, 4].map((axes) => stage.canvases.get(axes));
    const before = canvases.map(({ drawn }) => [...drawn]);
    stage.told = [];
    stage.tell({ kind: "view", axes: 2, x: [0, 2], y: null, y2: null });
    assert.deepEqual((await stage.heard("frame")).limits[2].x, [0, 2]);
    assert.deepEqual(stage.strokes(), ["M0,100 L100,0"]);
    await stage.paint();
    /** The axes of which pictures came with a frame, those whose limits it has, and its end. */
    const told = async (draw) => {
        stage.told = [];
        const { outcome } = (await stage.frame(draw)).at(-2)[1];
        const { pictures, limits } = stage.told.find(({ kind }) => kind === "frame");
        return [pictures, limits].map((one) => Object.keys(one).join()).concat(outcome);
    };
    const both = (y) => () => [3, 5].forEach((line) => engine.data(line, { x: [0, 1], y }));
    assert.deepEqual(await told(both([1, 0])), ["2,4", "2,4", "painted"]);
    assert.deepEqual(stage.strokes(), ["M0,0 L100,100"]);
    assert.deepEqual(await told(() => add(6)), ["6", "2,4,6", "painted"]);
    assert.deepEqual(
        canvases.map(({ drawn }) => drawn),
        before,
    );
    // One that cannot be taken keeps its old picture and its limits, until it can.
    const fail = () => {
        throw new Error("no memory");
    };
    t.mock.method(FakeCanvas.prototype, "transferToImageBitmap", fail, { times: 1 });
    assert.deepEqual(await told(both([0, 1])), ["4", "4,6", "failed"]);
    assert.equal((await stage.heard("error")).text, "paint: no memory");
    assert.deepEqual(await told(() => {}), ["2", "2,4,6", "painted"]);
});

test("The legend hides a series, until it is gone; a theme changes colours", async () => {
    await stage.show();
    const shown = async () => (await stage.heard("scene")).figures[0].axes[0].series[0];
    stage.tell({ kind: "view", axes: 2, x: null, y: null, y2: null });
    assert.equal((await stage.published())[1].home, true);
    stage.tell({ kind: "visible", series: 3, visible: false });
    await stage.paint();
    assert.equal((await shown()).visible, false);
    assert.deepEqual(stage.strokes(), []);
    stage.engine.draw(() => {
        stage.engine.say("remove", { id: 3 });
        stage.engine.create(3, "line", 2);
    });
    assert.equal((await shown()).visible, false);
    stage.tell({ kind: "theme", theme: { ...THEME, dark: true } });
    assert.equal((await shown()).color, "#5ab4f0");
});

test("A vocabulary that is not known is not subscribed to", async () => {
    const other = new Stage();
    await other.begin({ ...CONFIGURATION, vocabulary: "kirofigures/9" });
    assert.equal((await other.heard("hello")).known, false);
    other.tell({ kind: "key", key: "k", axes: null });
    other.tell({ kind: "report", text: "first" });
    assert.equal((await other.published())[1].message, "first");
    assert.ok(!other.engine.peer.passed.includes("subscribe"));
    other.end();
});

/** What somebody who recorded it would find, in this order. */
const RECORDED = [
    /"event":"begin"/,
    /"frame":0,"seq":5,"commands":\[{"seq":1,"cmd":"beginFrame"/,
    /"frame":1,"attempt":1,.*"cmd":"beginFrame"/,
    /"data":"6 0","first":2/,
    /"frame":1,"attempt":1,"kind":"changes","bytes":\d+,"seq":7}/,
    /"outcome":"painted","reason":"","serverSend":9,"clientReceive":\d+,"clientPaint":\d{7},"clientSend":\d+/,
    /"event":"key","key":"k"/,
    /"event":"gone"/,
    /"event":"return"/,
    /"error":"test/,
];

test("A recording has what came and went, takes the engine's place, and shows what was shown", async () => {
    await stage.show();
    const { engine } = stage;
    stage.tell({ kind: "record", most: 1e6 });
    const shown = [stage.strokes()];
    for (let i = 0; i < 3; ++i) {
        await stage.frame(() => engine.data(3, { x: [2 + i], y: [0.5 / (i + 1)] }, 2 + i));
        shown.push(stage.strokes());
    }
    assert.equal(new Set(shown.map(String)).size, 4);
    stage.tell({ kind: "key", key: "k", axes: null });
    engine.peer.socket.terminate();
    await engine.meet(stage.gateway, { kind: "return" });
    await stage.settled();
    stage.tell({ kind: "record", most: null });
    const { file, reason } = await stage.heard("recorded");
    assert.equal(reason, "");
    const text = Buffer.from(await file.arrayBuffer()).toString("latin1");
    const places = RECORDED.map((part) => text.search(part));
    const isInOrder = places.every((at, i) => at > (places[i - 1] ?? -1));
    assert.ok(isInOrder, String(places));
    // What somebody looked at says nothing about another run.
    stage.tell({ kind: "view", axes: 2, x: [0, 1], y: null, y2: null });
    stage.told = [];
    stage.tell({ kind: "replay", files: [file] });
    assert.equal((await stage.heard("hello")).configuration.title, CONFIGURATION.title);
    assert.equal(await engine.peer.closed, 1000);
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
    stage.tell({ kind: "replay", files: [new Blob(["no recording"])] });
    assert.match((await stage.heard("error")).text, /offset 0: this is no recording/);
    assert.equal(stage.told.filter(({ kind }) => kind === "state").at(-1).name, "closed");
});
