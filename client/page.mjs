// The page: brings the connection, the commands, the figures and the elements together.

import { Inbox } from "./commands.mjs";
import { FigureViews } from "./figure_views.mjs";
import { Scene } from "./figures.mjs";
import { Flusher, now } from "./flush.mjs";
import { Connection, gatewayAddress } from "./protocol.mjs";
import { StatusBar } from "./status_bar.mjs";

/**
 * @typedef {object} Channels what the program says in the hello's "configuration"
 * @property {string} commands
 * @property {string} blocks
 * @property {string} ready where the page announces itself
 * @property {string} [newView] where it announces a view that begins; absent: nowhere
 * @property {string} [picks] where it sends the places at which somebody points
 */

/** @param {string} id @returns {HTMLElement} */
function element(id) {
    const found = document.getElementById(id);
    if (!found) throw new Error(`no element ${id}`);
    return found;
}

class Page {
    /** @type {Channels | null} */
    #channels = null;
    /** When the text at hand came, in microseconds since 1970. */
    #received = 0;
    /** Whether everything was asked for again, and nothing that builds on it was drawn since. */
    #asked = false;
    /** Once an animation frame has been painted, a message on this channel runs its tasks. */
    #frameEnd = new MessageChannel();
    /** @type {(() => void)[]} */
    #afterPaint = [];

    outcomes = { painted: 0, hidden: 0, failed: 0 };
    /** @type {string[]} the latest errors */
    errors = [];
    scene = new Scene();

    constructor() {
        this.flusher = new Flusher({
            paint: () => this.views.paint(),
            isHidden: () => document.hidden,
            onFrame: (call) => requestAnimationFrame(call),
            afterPaint: (call) => this.#whenPainted(call),
            report: (error) => this.#report(error),
            answer: (token, outcome) => this.#answer(token, outcome),
        });
        this.views = new FigureViews(
            element("figures"),
            this.scene,
            (place) => this.#pick(place),
            () => this.flusher.request(),
        );
        this.inbox = this.#makeInbox();
        this.status = new StatusBar(
            element("status"),
            () => this.connection.retry(),
            () => this.connection.received,
        );
        this.connection = new Connection(
            gatewayAddress(),
            {
                onState: (state) => this.status.showState(state),
                onHello: (hello) => this.#begin(hello),
                onReady: () => this.#sayReady(),
                onText: (channel, text) => this.#text(channel, text),
                onBlock: (channel, block) => this.#block(channel, block),
                onRefused: (what, channel, reason) =>
                    this.#report(new Error(`${what} ${channel}: ${reason}`)),
                onFault: (error) => this.flusher.fail(error),
            },
            {
                client: "kiroweb page",
                subscribe: ({ commands, blocks }) => [commands, blocks],
                announce: ({ newView }) => newView,
            },
        );
        this.#listen();
    }

    #makeInbox() {
        return new Inbox({
            draw: (command, data) => this.scene.apply(command, data),
            token: (command) => {
                this.scene.isComplete = true;
                this.flusher.token({ command, received: this.#received });
            },
            report: (error) => this.flusher.fail(error),
        });
    }

    #listen() {
        this.#frameEnd.port1.onmessage = () => {
            for (const call of this.#afterPaint.splice(0)) call();
        };
        document.addEventListener("visibilitychange", () => this.flusher.visibilityChanged());
        addEventListener("online", () => this.connection.retry());
        addEventListener("error", (event) => this.#report(event.error ?? new Error(event.message)));
        addEventListener("unhandledrejection", (event) =>
            this.#report(new Error(String(event.reason))),
        );
        // A page that is kept for the back button would answer nothing: it says that it goes.
        addEventListener("pagehide", () => this.connection.close());
        addEventListener("pageshow", (event) => {
            if (event.persisted) location.reload();
        });
    }

    /** @param {import("./protocol.mjs").Hello} hello */
    #begin(hello) {
        if (hello.kind === "return") return;
        this.#channels = /** @type {Channels} */ (hello.configuration);
        this.flusher.forget();
        this.inbox = this.#makeInbox();
    }

    /** The engine may send: nothing of it is missed. */
    #sayReady() {
        const ready = { binaryChannelStatus: 1, useFastBinary: 1 };
        if (this.#channels) this.connection.publish(this.#channels.ready, JSON.stringify(ready));
    }

    /** @param {string} channel @param {string} text */
    #text(channel, text) {
        if (channel !== this.#channels?.commands) return;
        this.#received = now();
        this.inbox.text(text);
        this.flusher.request();
    }

    /** @param {string} channel @param {Uint8Array} block */
    #block(channel, block) {
        if (channel !== this.#channels?.blocks) return;
        this.#received = now();
        this.inbox.block(block);
        this.flusher.request();
    }

    /** @param {() => void} call */
    #whenPainted(call) {
        this.#afterPaint.push(call);
        if (this.#afterPaint.length === 1) this.#frameEnd.port2.postMessage(null);
    }

    /** @param {import("./flush.mjs").Token} token @param {import("./flush.mjs").Outcome} outcome */
    #answer({ command, received }, outcome) {
        ++this.outcomes[outcome];
        const sent = now();
        const { ACT, serverSendTS } = command;
        const reply = { ACT, serverSendTS, clientReceiveTS: received, clientSendTS: sent, outcome };
        this.connection.publish(command.returnChannel, JSON.stringify(reply));
        if (outcome === "failed") this.#askForAll();
        else if (outcome === "painted") this.#painted(this.scene.frame.whole);
        this.status.countFlush(sent - (serverSendTS ?? received));
    }

    /** @param {boolean} whole whether the frame shows everything anew */
    #painted(whole) {
        if (!whole) this.#asked = false;
        this.status.countFrame();
    }

    /** What failed may have left a figure without what comes next builds on. Once: a figure that
     * always fails would be sent again and again. */
    #askForAll() {
        const channel = this.#channels?.newView;
        if (channel && !this.#asked) this.connection.publish(channel, "{}");
        this.#asked = true;
    }

    /** @param {Error} error */
    #report(error) {
        const LATEST = 20;
        this.errors.push(error.message);
        if (this.errors.length > LATEST) this.errors.shift();
        this.status.showError(error.message);
        this.connection.reportError(error);
    }

    /** @param {[number, number]} place */
    #pick(place) {
        const HEADER = 8;
        const block = new Uint8Array(HEADER + 2 * Float32Array.BYTES_PER_ELEMENT);
        new Float32Array(block.buffer, HEADER).set(place);
        if (this.#channels?.picks) this.connection.publishBlock(this.#channels.picks, block);
    }
}

// Within reach of the browser's console and of tests.
Object.assign(globalThis, { kirowebPage: new Page() });
