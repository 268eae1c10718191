// A page's side of the wire between a gateway and a page. Knows nothing of drawing, and runs
// wherever there is a WebSocket.

import { readBatch, readBlockFrame, writeBlockFrame } from "./wire.mjs";

/** Where script errors go. */
export const ERROR_CHANNEL = "/services/ErrorLoggingService/JSErrors";

const SUBPROTOCOL = "kiroweb.v1";
const VERSION = 1;
/** The close code of a connection that is given up: the view stays. */
const GIVEN_UP = 4900;
/** So many failures in a row, with the program there, mean that it does not want the page. A single
 * one may be chance: a network that came back a moment too late for the attempt. */
const TURNED_AWAY = 2;
/** More than a gateway has under way. */
const MOST_REFUSED = 64;

/**
 * @typedef {object} State
 * @property {"connecting" | "live" | "reconnecting" | "refused" | "closed"} name
 *   refused: the gateway does not want this page, and nothing is tried any more
 * @property {string} reason why it is so; may be empty
 */

/**
 * @typedef {object} Hello the gateway's
 * @property {string} view
 * @property {"first" | "further" | "return"} kind
 * @property {number} next
 * @property {string[]} blockChannels
 * @property {string[]} subscribed
 * @property {string[]} refused
 * @property {string} [ended]
 * @property {Record<string, number>} limits
 * @property {Record<string, any>} configuration
 */

/**
 * @typedef {object} Handlers
 * What is called when something comes, in the order of arrival. Only `onState` may be called
 * inside a call of one of the connection's operations.
 * @property {(state: State) => void} [onState]
 * @property {(hello: Hello) => void} [onHello] the connection is live; also after a return
 * @property {(channel: string, text: string) => void} [onText]
 * @property {(channel: string, block: Uint8Array) => void} [onBlock] with the block's 8 bytes of
 *   identifier. What it throws gives the block back to the engine
 * @property {(what: string, channel: string, reason: string) => void} [onRefused] a request
 * @property {(error: Error) => void} [onFault] something came that cannot be read, or did not come
 */

/**
 * @typedef {object} Options
 * @property {string} [client] a name for the program's log
 * @property {string[]} [subscribe] channels from the start
 * @property {any} [WebSocket] the constructor, where it is not the global one
 * @property {any} [socketOptions] its third argument, for the npm package `ws`
 * @property {() => Promise<boolean>} [isServed] asked when no connection comes about: whether the
 *   program is there, so that it is the page that is not wanted
 * @property {() => number} [random] from 0 to below 1
 * @property {{first: number, soon: number, most: number}} [backoff] milliseconds before another
 *   attempt: at first, at most while the view can still be returned to, and at most
 * @property {{open: number, quiet: number, answer: number}} [patience] milliseconds for a
 *   connection to come about and for `isServed`, of silence before the gateway is asked for a sign
 *   of life, and for that
 * @property {number} [queueSize] characters kept for a connection that is not there
 * @property {number} [blockSize] bytes of the largest block that is taken
 */

const DEFAULTS = {
    client: "page",
    subscribe: /** @type {string[]} */ ([]),
    WebSocket: /** @type {any} */ (globalThis).WebSocket,
    socketOptions: undefined,
    isServed: async () => false,
    random: Math.random,
    backoff: { first: 100, soon: 600, most: 5000 },
    patience: { open: 5000, quiet: 5000, answer: 3000 },
    queueSize: 1024 * 1024,
    blockSize: 1024 * 1024 * 1024,
};

/** What a close code means for the next attempt. Codes that are not here: come back to the view. */
const AFTER_CLOSE = new Map(
    /** @type {[number, "afresh" | "refused"][]} */ ([
        [1001, "afresh"],
        [1002, "refused"],
        [1007, "refused"],
        [1009, "refused"],
        [4000, "refused"],
        [4001, "afresh"],
        [4002, "refused"],
        [4003, "afresh"],
        [4005, "afresh"],
    ]),
);

/** The blocks that are coming in pieces. */
class Assembly {
    /** @type {Map<number, {bytes: Uint8Array, filled: number}>} */
    #blocks = new Map();
    /** @param {number} most bytes of one block */
    constructor(most) {
        this.most = most;
    }
    /** The whole block with its last piece, null before. Throws for a block that cannot be kept:
     * once, further pieces of it are dropped silently.
     * @param {import("./wire.mjs").Piece} piece @returns {Uint8Array | null} */
    add(piece) {
        let block = this.#blocks.get(piece.transfer);
        if (!block && piece.last) return piece.data;
        if (!block) {
            if (piece.number > this.most) throw new RangeError(`a block of ${piece.number} bytes`);
            block = { bytes: new Uint8Array(piece.number), filled: 0 };
            this.#blocks.set(piece.transfer, block);
        }
        block.bytes.set(piece.data, block.filled);
        block.filled += piece.data.length;
        if (!piece.last) return null;
        this.#blocks.delete(piece.transfer);
        if (block.filled !== block.bytes.length) throw new RangeError("a block with a piece missing");
        return block.bytes;
    }
    /** @param {number} transfer */
    forget(transfer) {
        this.#blocks.delete(transfer);
    }
    clear() {
        this.#blocks.clear();
    }
}

/** A connection to a gateway that is made again whenever it is lost. */
export class Connection {
    #url;
    #handlers;
    #options;

    /** @type {State} */
    #state = { name: "connecting", reason: "" };
    /** @type {any} */
    #socket = null;
    #live = false;
    #attempts = 0;
    /** Attempts in a row that failed although the program is there. */
    #turnedAway = 0;
    /** Until when the view can be returned to, by `performance.now()`. */
    #returnUntil = 0;
    /** @type {Map<string, ReturnType<typeof setTimeout>>} */
    #timers = new Map();

    /** @type {Hello | null} */
    #hello = null;
    #view = "";
    /** Everything up to this message has been handled. */
    #last = 0;
    #acknowledged = 0;
    #unacknowledgedBytes = 0;
    /** Numbers, above `#last`, of messages that will not come. @type {Set<number>} */
    #withdrawn = new Set();
    /** @type {string[]} by their number less one */
    #blockChannels = [];
    #assembly;
    /** Blocks whose pieces are void, with the reason. The answer is due with the last piece.
     * @type {Map<number, string>} */
    #refusedTransfers = new Map();
    /** The numbers of the latest blocks that were refused: the answers may be lost.
     * @type {number[]} */
    #refusedNumbers = [];

    /** @type {Set<string>} */
    #subscriptions;
    /** Objects for the next frame. @type {object[]} */
    #outgoing = [];
    /** For when the connection is there. @type {{t: string, channel: string, text: string}[]} */
    #queue = [];
    #queued = 0;
    /** The page's own block channels. @type {Map<string, number>} */
    #ownChannels = new Map();

    /** Bytes and characters of frames, since the page began. */
    received = 0;
    sent = 0;

    /** Begins to connect.
     * @param {string} url @param {Handlers} handlers @param {Options} [options] */
    constructor(url, handlers, options = {}) {
        this.#url = url;
        this.#handlers = handlers;
        this.#options = { ...DEFAULTS, ...options };
        this.#subscriptions = new Set(this.#options.subscribe);
        this.#assembly = new Assembly(this.#options.blockSize);
        queueMicrotask(() => this.#connect());
    }

    get state() {
        return this.#state;
    }
    /** The number of the last message handled. */
    get last() {
        return this.#last;
    }

    /** Publishes a text, or keeps it until the connection is there again. Answers false, and drops
     * it, when too much is kept already or the text is larger than the gateway allows.
     * @param {string} channel @param {string} text @returns {boolean} */
    publish(channel, text) {
        const message = { t: "publish", channel, text };
        const most = this.#hello?.limits.message ?? Infinity;
        // A text of UTF-16 units, escaped and encoded, can grow to six bytes each.
        const size = text.length + channel.length;
        if (size * 6 > most && new TextEncoder().encode(JSON.stringify(message)).length > most) {
            return false;
        }
        if (this.#live) {
            this.#send(message);
            return true;
        }
        if (this.#state.name === "closed" || this.#queued + size > this.#options.queueSize) {
            return false;
        }
        this.#queue.push(message);
        this.#queued += size;
        return true;
    }

    /** Sends a block, 8 bytes of header included, at once; answers false when there is no connection.
     * @param {string} channel @param {Uint8Array} block @returns {boolean} */
    publishBlock(channel, block) {
        if (!this.#live) return false;
        let number = this.#ownChannels.get(channel);
        if (number === undefined) {
            number = this.#ownChannels.size + 1;
            this.#ownChannels.set(channel, number);
            this.#send({ t: "channel", number, name: channel });
        }
        this.#flush();
        const frame = writeBlockFrame(number, block);
        this.sent += frame.length;
        this.#socket.send(frame);
        return true;
    }

    /** @param {string[]} channels a name that ends in "/*" stands for all that begin so */
    subscribe(channels) {
        for (const channel of channels) this.#subscriptions.add(channel);
        if (this.#live) this.#send({ t: "subscribe", channels });
    }
    /** @param {string[]} channels */
    unsubscribe(channels) {
        for (const channel of channels) this.#subscriptions.delete(channel);
        if (this.#live) this.#send({ t: "unsubscribe", channels });
    }

    /** Tries again now, also after a refusal. Does nothing while a connection is there or coming. */
    retry() {
        if (this.#socket || this.#state.name === "closed") return;
        this.#attempts = 0;
        this.#turnedAway = 0;
        this.#setState("connecting", "");
        this.#connect();
    }

    /** Ends the view. */
    close() {
        this.#flush();
        const socket = this.#detach();
        this.#clearTimers();
        this.#setState("closed", "");
        socket?.close(1000);
    }

    #connect() {
        if (this.#socket || this.#state.name === "closed") return;
        this.#clearTimers();
        const { WebSocket, socketOptions, patience } = this.#options;
        const socket = new WebSocket(this.#url, SUBPROTOCOL, socketOptions);
        this.#socket = socket;
        socket.binaryType = "arraybuffer";
        let opened = false;
        // A socket that was let go of has nothing to say any more.
        const ifCurrent = (/** @type {(event: any) => void} */ handle) => (/** @type {any} */ event) => {
            if (this.#socket === socket) handle(event);
        };
        socket.onopen = ifCurrent(() => {
            opened = true;
            this.#sayHello();
        });
        socket.onmessage = ifCurrent((event) => this.#receive(event.data));
        // The close event that follows has all there is to know; the npm package throws without this.
        socket.onerror = () => {};
        socket.onclose = ifCurrent((event) => this.#closed(opened, event.code, event.reason));
        this.#after("open", patience.open, () => this.#abandon("no answer from the program"));
    }

    #sayHello() {
        const hello = {
            t: "hello",
            version: VERSION,
            client: this.#options.client,
            capabilities: [],
            limits: { block: this.#options.blockSize },
            subscribe: [...this.#subscriptions],
            ...(this.#view && {
                view: this.#view,
                last: this.#last,
                refused: this.#refusedNumbers,
            }),
        };
        const text = JSON.stringify(hello);
        this.sent += text.length;
        this.#socket.send(text);
    }

    /** @param {boolean} opened @param {number} code @param {string} reason */
    async #closed(opened, code, reason) {
        this.#detach();
        const next = AFTER_CLOSE.get(code);
        if (next) this.#view = "";
        const why = reason || (opened ? `connection lost (${code})` : "no connection");
        if (next === "refused") return this.#refuse(why);
        this.#setState("reconnecting", why);
        const isServed = !opened && (await this.#isServed());
        // The program was asked meanwhile; somebody else may have connected or closed.
        if (this.#socket || this.#state.name !== "reconnecting") return undefined;
        this.#turnedAway = isServed ? this.#turnedAway + 1 : 0;
        if (this.#turnedAway < TURNED_AWAY) return this.#connectLater();
        return this.#refuse("the program does not let this page in: open its link again");
    }

    /** No, if that cannot be found out in time. @returns {Promise<boolean>} */
    #isServed() {
        return new Promise((resolve) => {
            this.#after("served", this.#options.patience.open, () => resolve(false));
            this.#options.isServed().then(resolve, () => resolve(false));
        });
    }

    /** @param {string} reason */
    #refuse(reason) {
        this.#clearTimers();
        this.#setState("refused", reason);
    }

    /** Gives the connection up without waiting for its end. The gateway may come to hear of it, and
     * before it hears of the return. @param {string} reason */
    #abandon(reason) {
        const socket = this.#detach();
        this.#setState("reconnecting", reason);
        socket?.close(GIVEN_UP);
        this.#connectLater();
    }

    #detach() {
        const socket = this.#socket;
        if (this.#live) {
            this.#returnUntil = performance.now() + (this.#hello?.limits.returnMilliseconds ?? 0);
        }
        this.#socket = null;
        this.#live = false;
        this.#clearTimers();
        this.#outgoing = [];
        this.#ownChannels.clear();
        return socket;
    }

    #connectLater() {
        if (this.#socket || this.#state.name === "closed") return;
        const { backoff, random } = this.#options;
        const most = performance.now() < this.#returnUntil ? backoff.soon : backoff.most;
        const longest = Math.min(most, backoff.first * 2 ** this.#attempts++);
        // Half of it is random, so that many pages do not come back at once.
        this.#after("connect", longest * (0.5 + random() / 2), () => this.#connect());
    }

    /** @param {string | ArrayBuffer} data */
    #receive(data) {
        const size = typeof data === "string" ? data.length : data.byteLength;
        this.received += size;
        if (this.#live) this.#watchForSilence();
        try {
            if (typeof data !== "string") {
                this.#receiveBlock(data);
            } else if (data.startsWith("{")) {
                this.#control(JSON.parse(data));
            } else {
                readBatch(data, this.#takeText);
            }
        } catch (error) {
            this.#fault(error);
        }
        this.#acknowledgeSoon(size);
    }

    /** Of a batch. One function for all of them, made once.
     * @type {(number: number, channel: string, text: string) => void} */
    #takeText = (number, channel, text) => {
        if (!this.#isNew(number)) return;
        try {
            this.#handlers.onText?.(channel, text);
        } catch (error) {
            this.#fault(error);
        }
    };

    /** @param {any} message */
    #control(message) {
        switch (message.t) {
            case "hello":
                return this.#welcome(message);
            case "channel":
                this.#blockChannels[message.number - 1] = message.name;
                return undefined;
            case "withdrawn":
                this.#assembly.forget(message.transfer);
                this.#refusedTransfers.delete(message.transfer);
                if (message.number > this.#last) this.#withdrawn.add(message.number);
                return this.#passWithdrawn();
            case "refused":
                return this.#handlers.onRefused?.(message.what, message.channel, message.reason);
            default:
                return undefined;
        }
    }

    /** @param {Hello} hello */
    #welcome(hello) {
        if (hello.kind !== "return") {
            this.#last = hello.next - 1;
            this.#acknowledged = this.#last;
            this.#withdrawn.clear();
            this.#refusedNumbers = [];
        }
        this.#hello = hello;
        this.#view = hello.view;
        this.#blockChannels = [...hello.blockChannels];
        this.#assembly.clear();
        this.#refusedTransfers.clear();
        this.#attempts = 0;
        this.#turnedAway = 0;
        this.#clearTimers();
        this.#live = true;
        this.#watchForSilence();
        this.#setState("live", hello.ended ? `begun afresh: ${hello.ended}` : "");
        // A view that is returned to still hears what was given up meanwhile.
        const channels = hello.subscribed.filter((name) => !this.#subscriptions.has(name));
        if (channels.length > 0) this.#send({ t: "unsubscribe", channels });
        for (const channel of hello.refused) {
            this.#handlers.onRefused?.("subscribe", channel, "not allowed");
        }
        for (const message of this.#queue.splice(0)) this.#send(message);
        this.#queued = 0;
        try {
            this.#handlers.onHello?.(hello);
        } catch (error) {
            this.#fault(error);
        }
    }

    /** @param {ArrayBuffer} frame */
    #receiveBlock(frame) {
        const piece = readBlockFrame(frame);
        if (!piece) return;
        const { transfer } = piece;
        const refused = this.#refusedTransfers.get(transfer);
        if (refused !== undefined) {
            if (!piece.last) return;
            this.#refusedTransfers.delete(transfer);
            this.#refuseBlock(piece, refused);
            return;
        }
        try {
            const block = this.#assembly.add(piece);
            if (!block) return;
            if (this.#isNew(piece.number)) this.#handlers.onBlock?.(this.#blockChannels[piece.channel - 1] ?? "", block);
            this.#send({ t: "block", transfer, ok: true });
        } catch (error) {
            const reason = String(error);
            this.#assembly.forget(transfer);
            this.#fault(error);
            if (!piece.last) {
                this.#refusedTransfers.set(transfer, reason);
                return;
            }
            this.#refuseBlock(piece, reason);
        }
    }

    /** @param {import("./wire.mjs").Piece} piece the last one @param {string} reason */
    #refuseBlock({ transfer, number }, reason) {
        this.#isNew(number);
        if (this.#refusedNumbers.push(number) > MOST_REFUSED) this.#refusedNumbers.shift();
        this.#send({ t: "block", transfer, ok: false, reason });
    }

    /** Counts the message as handled; answers false if it was already.
     * @param {number} number */
    #isNew(number) {
        if (number <= this.#last) return false;
        const expected = this.#last + 1;
        this.#last = number;
        this.#passWithdrawn();
        if (number !== expected) {
            this.#fault(new Error(`messages ${expected} to ${number - 1} are missing`));
        }
        return true;
    }

    #passWithdrawn() {
        if (this.#withdrawn.size === 0) return;
        while (this.#withdrawn.delete(this.#last + 1)) ++this.#last;
    }

    /** @param {number} bytes */
    #acknowledgeSoon(bytes) {
        if (!this.#live || this.#last === this.#acknowledged) return;
        // At half of what is allowed: the acknowledgement takes its time, too.
        const { ackBytes = 1e6, ackMilliseconds = 1000 } = this.#hello?.limits ?? {};
        this.#unacknowledgedBytes += bytes;
        if (this.#unacknowledgedBytes > ackBytes / 2) this.#acknowledge();
        else if (!this.#timers.has("ack")) {
            this.#after("ack", ackMilliseconds / 2, () => this.#acknowledge());
        }
    }

    #acknowledge() {
        clearTimeout(this.#timers.get("ack"));
        this.#timers.delete("ack");
        this.#unacknowledgedBytes = 0;
        this.#acknowledged = this.#last;
        this.#send({ t: "ack", last: this.#last });
    }

    #watchForSilence() {
        const { quiet, answer } = this.#options.patience;
        clearTimeout(this.#timers.get("answer"));
        this.#after("quiet", quiet, () => {
            this.#send({ t: "echo", id: 0 });
            this.#after("answer", answer, () => this.#abandon("the connection has gone silent"));
        });
    }

    /** Collects what is sent in one turn into one frame. @param {object} message */
    #send(message) {
        if (this.#outgoing.push(message) === 1) queueMicrotask(() => this.#flush());
    }

    #flush() {
        if (!this.#live || this.#outgoing.length === 0) return;
        const most = (this.#hello?.limits.message ?? Infinity) / 3;
        /** @type {string[]} */
        let texts = [];
        let size = 0;
        const send = () => {
            const text = texts.length === 1 ? texts[0] : `[${texts.join(",")}]`;
            this.sent += text.length;
            this.#socket.send(text);
        };
        for (const message of this.#outgoing.splice(0)) {
            const text = JSON.stringify(message);
            // A UTF-16 unit is three bytes at most.
            if (texts.length > 0 && size + text.length + 2 > most) {
                send();
                texts = [];
                size = 0;
            }
            texts.push(text);
            size += text.length + 1;
        }
        send();
    }

    /** @param {unknown} error */
    #fault(error) {
        this.#handlers.onFault?.(error instanceof Error ? error : new Error(String(error)));
    }

    /** @param {State["name"]} name @param {string} reason */
    #setState(name, reason) {
        if (this.#state.name === "closed") return;
        this.#state = { name, reason };
        this.#handlers.onState?.(this.#state);
    }

    /** One timer of each name. @param {string} name @param {number} ms @param {() => void} call */
    #after(name, ms, call) {
        clearTimeout(this.#timers.get(name));
        const timer = setTimeout(() => {
            this.#timers.delete(name);
            call();
        }, ms);
        this.#timers.set(name, timer);
    }

    #clearTimers() {
        for (const timer of this.#timers.values()) clearTimeout(timer);
        this.#timers.clear();
    }
}

