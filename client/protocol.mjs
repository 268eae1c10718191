// A page's side of the wire between a gateway and a page. Knows nothing of drawing, and runs wherever
// there is a WebSocket.

import { knownToken, tabAccess } from "./access.mjs";
import { Acknowledgement } from "./acknowledgement.mjs";
import { EngineClock } from "./engine_clock.mjs";
import { Line } from "./line.mjs";
import { channelName, cutTo, encode, framesOf, takeNames, wellFormed } from "./outgoing.mjs";
import { Assembly } from "./pieces.mjs";
import { HEADER, readBatch, readBlockFrame, writeBlockFrame } from "./wire.mjs";

export { gatewayAddress, tabAccess } from "./access.mjs";
export { CLOSE_CODES } from "./close_codes.mjs";
export { readJson } from "./wire.mjs";

/** Where script errors go. */
export const ERROR_CHANNEL = "/services/ErrorLoggingService/JSErrors";

const VERSION = 1;
/** More than a gateway has under way, fewer than it takes in a hello. */
const MOST_REFUSED = 1024;
/** The page's own block channels have the numbers from 1 to this. */
const OWN_CHANNELS = 16;
/** Bytes of a client's name, and of a reason. */
const MOST_TEXT_BYTES = 256;
/** Bytes of channels in a hello, which comes before the gateway's limits are known: all of it has
 * to fit into 64 KiB. What does not follows the gateway's hello. */
const HELLO_NAMES_BYTES = 32 * 1024;

/** @typedef {import("./line.mjs").State} State */

/**
 * @typedef {object} Hello the gateway's
 * @property {string} view secret: it lets its holder return
 * @property {"first" | "further" | "return"} kind
 * @property {number} next
 * @property {string[]} blockChannels
 * @property {string[]} subscribed
 * @property {string[]} refused
 * @property {string} [ended]
 * @property {string[]} [gateways] addresses of others that lead to the same engine
 * @property {Record<string, number>} limits
 * @property {Record<string, any>} configuration
 */

/**
 * @typedef {object} Handlers
 * What is called when something comes, in the order of arrival. Only `onState` may be called
 * inside a call of one of the connection's operations.
 * @property {(state: State) => void} [onState]
 * @property {(hello: Hello) => void} [onHello] the connection is live; also after a return
 * @property {(hello: Hello) => void} [onReady] what was subscribed is in force and the view is
 *   announced: what the page publishes now comes behind that. Once for each new view, and again if
 *   the connection is lost before it is known that the gateway has it
 * @property {(channel: string, text: string) => void} [onText] what it throws is a fault
 * @property {(channel: string, block: Uint8Array) => void} [onBlock] with the block's 8 bytes of
 *   identifier. What it throws is a fault and gives the block back to the engine
 * @property {(what: string, channel: string, reason: string) => void} [onRefused] a request
 * @property {(error: Error) => void} [onFault] something came that cannot be read or handled, or
 *   did not come. Without this handler the engine is told, on `ERROR_CHANNEL`
 */

/** @typedef {import("./access.mjs").Access} Access */
/** @typedef {Record<string, any>} Configuration */

/**
 * @typedef {object} Options
 * @property {string} [client] a name for the program's log; its first 256 bytes count
 * @property {string[] | ((configuration: Configuration) => string[])} [subscribe] channels from the
 *   start, or what they are by the gateway's hello
 * @property {string | ((configuration: Configuration) => string | undefined)} [announce] the channel
 *   on which each new view is announced, once what it subscribed is in force; absent or empty: none.
 *   For a channel that the gateway announces views on itself (`newViewChannel`) leave it out
 * @property {string} [token] for a client that is no page; a page has what its link brought
 * @property {Access} [access] how it gets in, if neither a token nor the tab's link says
 * @property {any} [WebSocket] the constructor, where it is not the global one
 * @property {any} [socketOptions] its third argument, for the npm package `ws`
 * @property {() => number} [random] from 0 to below 1
 * @property {() => number} [clock] microseconds since 1970, for stamps that the engine is to get:
 *   what is to be added to them is measured then, see `engineClock`
 * @property {import("./backoff.mjs").Waits} [backoff] before another attempt
 * @property {{open: number, quiet: number, answer: number}} [patience] milliseconds for a
 *   connection to come about, of silence before the gateway is asked for a sign of life, and for
 *   that
 * @property {number} [queueSize] bytes, as JSON, kept for a connection that is not there
 * @property {number} [blockSize] bytes of the largest block that is taken
 */

const DEFAULTS = {
    client: "page",
    subscribe: /** @type {string[]} */ ([]),
    announce: "",
    WebSocket: /** @type {any} */ (globalThis).WebSocket,
    socketOptions: undefined,
    random: Math.random,
    clock: /** @type {(() => number) | undefined} */ (undefined),
    backoff: { first: 100, soon: 600, most: 5000 },
    patience: { open: 5000, quiet: 5000, answer: 3000 },
    queueSize: 1024 * 1024,
    blockSize: 1024 * 1024 * 1024,
};

/** A size as the wire has it, which has no word for "any". @param {number} size */
const wholeNumber = (size) => Math.floor(Math.min(Math.max(size, 0), Number.MAX_SAFE_INTEGER)) || 0;

/** @typedef {import("./outgoing.mjs").Encoded} Encoded */

/**
 * A connection to a gateway that is made again whenever it is lost. A page that shows what an engine
 * sends, and answers:
 *
 * ```js
 * import { Connection, gatewayAddress, readJson } from "/kiroweb/protocol.mjs";
 *
 * const connection = new Connection(
 *     gatewayAddress(),
 *     {
 *         onState: ({ name, reason }) => (document.title = `${name} ${reason}`),
 *         onText(channel, text) {
 *             const command = readJson(text); // JSON.parse refuses what stands for not-a-number
 *             if (command.cmd === "sendACT") connection.returnToken(command);
 *             else document.body.append(text, document.createElement("br"));
 *         },
 *         onReady({ configuration }) {
 *             connection.publish(configuration.ready, "{}"); // the engine begins to send
 *         },
 *     },
 *     {
 *         subscribe: (configuration) => [configuration.commands],
 *         announce: (configuration) => configuration.newView,
 *     },
 * );
 * ```
 */
export class Connection {
    #handlers;
    #options;
    #line;

    /** @type {Hello | null} */
    #hello = null;
    #view = "";
    /** What the view was when it began. @type {Hello["kind"]} */
    #kind = "first";
    #isAnnounced = false;
    #handled = new Acknowledgement((last) => this.#send({ t: "ack", last }));
    /** @type {string[]} by their number less one */
    #blockChannels = [];
    #assembly;
    /** The numbers of the latest blocks that were refused: the answers may be lost.
     * @type {number[]} */
    #refusedNumbers = [];
    /** Whether there was a fault since the last token. */
    #failed = false;

    /** @type {Set<string>} */
    #subscriptions = new Set();
    /** Those of them that the configuration named. @type {string[]} */
    #configured = [];
    /** For the next frames. @type {Encoded[]} */
    #outgoing = [];
    /** For when the connection is there. @type {Encoded[]} */
    #queue = [];
    #queued = 0;
    /** Numbers of the page's own block channels, that of the latest block last.
     * @type {Map<string, number>} */
    #ownChannels = new Map();
    /** What to do when an echo comes back. @type {Map<number, (message: any) => void>} */
    #echoes = new Map();
    #lastEcho = 0;
    /** @type {EngineClock | null} */
    #clock = null;

    /** Bytes and characters of frames, since the page began. */
    received = 0;
    sent = 0;

    /** Begins to connect.
     * @param {string} url for a page of the gateway's own: `gatewayAddress()`
     * @param {Handlers} handlers @param {Options} [options] */
    constructor(url, handlers, options = {}) {
        this.#handlers = handlers;
        this.#options = { ...DEFAULTS, ...options };
        const { subscribe, token, access, blockSize, clock } = this.#options;
        if (clock) this.#clock = new EngineClock(clock, (then) => this.#echo(then, { time: true }));
        this.#assembly = new Assembly(blockSize);
        const ownAccess = access ?? (token === undefined ? tabAccess : knownToken(token));
        this.#line = new Line(
            url,
            { ...this.#options, access: ownAccess },
            {
                stateChanged: (state) => this.#handlers.onState?.(state),
                opened: () => this.#sayHello(),
                received: (data) => this.#receive(data),
                silent: () => this.#echo(() => {}),
                lost: (next) => this.#lost(next),
            },
        );
        if (Array.isArray(subscribe)) this.subscribe(subscribe);
    }

    get state() {
        return this.#line.state;
    }
    /** The number of the last message handled. */
    get last() {
        return this.#handled.last;
    }

    /** How far the engine's clock is ahead of the option `clock`; null: it is not known. */
    get engineClock() {
        return this.#clock?.clock ?? null;
    }

    /** Publishes a text, or keeps it until the connection is there again. Returns false, and drops
     * it, when too much is kept already. Throws a RangeError, with both sizes, for a text that is
     * larger than the gateway takes and for a channel whose name has more than 1024 bytes. A text
     * that was kept and turns out to be too large is a fault.
     * @param {string} channel @param {string} text @returns {boolean} */
    publish(channel, text) {
        const name = channelName(channel);
        const message = encode({ t: "publish", channel: name, text: wellFormed(text) });
        this.#demandSize(message);
        if (this.#line.isLive) {
            this.#sendEncoded(message);
            return true;
        }
        if (this.#line.state.name === "closed") return false;
        if (this.#queued + message.bytes > this.#options.queueSize) return false;
        this.#queue.push(message);
        this.#queued += message.bytes;
        return true;
    }

    /** Sends a block, 8 bytes of identifier included, at once; returns false when there is no
     * connection. Throws a RangeError like `publish`. More than 16 channels take turns with the
     * numbers that there are: the one that was not used for the longest time gives its own away.
     * @param {string} channel @param {Uint8Array} block @returns {boolean} */
    publishBlock(channel, block) {
        const name = channelName(channel);
        const most = this.#mostBytes() - HEADER;
        if (block.length > most) {
            throw new RangeError(`a block of ${block.length} bytes: the gateway takes ${most}`);
        }
        if (!this.#line.isLive) return false;
        const frame = writeBlockFrame(this.#numberOf(name), block);
        this.#flush();
        this.sent += frame.length;
        this.#line.send(frame);
        return true;
    }

    /** Returns the token of a "sendACT" command, with the members of its reply: what came before it
     * is drawn. Where that is not so, because something could not be read or a handler threw since
     * the last token, it is not returned and the answer is false: the engine's wait then ends by
     * its time-out, not as if the page had drawn.
     * @param {Record<string, any>} command @param {Record<string, any>} [members]
     * @returns {boolean} */
    returnToken({ ACT, returnChannel, serverSendTS }, members = {}) {
        const failed = this.#failed;
        this.#failed = false;
        if (failed) return false;
        return this.publish(returnChannel, JSON.stringify({ ACT, serverSendTS, ...members }));
    }

    /** Tells the engine of a script error, of which no more goes out than any gateway takes.
     * @param {Error} error */
    reportError({ message, stack = "" }) {
        const report = { message: cutTo(message, 500), stack: cutTo(stack, 2000) };
        this.publish(ERROR_CHANNEL, JSON.stringify(report));
    }

    /** Throws a RangeError for a name of more than 1024 bytes.
     * @param {string[]} channels a name that ends in "/*" stands for all that begin so */
    subscribe(channels) {
        const names = channels.map(channelName);
        for (const name of names) this.#subscriptions.add(name);
        if (this.#line.isLive) this.#sendNames("subscribe", names);
    }
    /** Throws as `subscribe` does. @param {string[]} channels */
    unsubscribe(channels) {
        const names = channels.map(channelName);
        for (const name of names) this.#subscriptions.delete(name);
        if (this.#line.isLive) this.#sendNames("unsubscribe", names);
    }

    /** Tries again now, also after a refusal. Does nothing while a connection is there or coming. */
    retry() {
        this.#line.retry();
    }

    /** Ends the view. */
    close() {
        this.#flush();
        this.#line.close();
    }

    // --- A connection begins and ends ---------------------------------------------------------

    #sayHello() {
        const hello = {
            t: "hello",
            version: VERSION,
            client: cutTo(this.#options.client, MOST_TEXT_BYTES),
            capabilities: [],
            limits: { block: wholeNumber(this.#options.blockSize) },
            subscribe: takeNames([...this.#subscriptions], HELLO_NAMES_BYTES),
            ...(this.#view && {
                view: this.#view,
                last: this.last,
                refused: this.#refusedNumbers,
            }),
        };
        this.#write(JSON.stringify(hello));
    }

    /** @param {import("./close_codes.mjs").NextAttempt} next */
    #lost(next) {
        if (next !== "return") this.#view = "";
        this.#handled.stop();
        this.#ownChannels.clear();
        this.#echoes.clear();
        this.#clock?.stop();
    }

    // --- Receiving ----------------------------------------------------------------------------

    /** @param {string | ArrayBuffer} data */
    #receive(data) {
        const size = typeof data === "string" ? data.length : data.byteLength;
        this.received += size;
        const isControl = typeof data === "string" && data.startsWith("{");
        try {
            if (typeof data !== "string") {
                this.#receiveBlock(data);
            } else if (isControl) {
                this.#control(JSON.parse(data));
            } else {
                readBatch(data, this.#takeText);
            }
        } catch (error) {
            this.#fault(error);
        }
        if (this.#line.isLive) this.#handled.count(isControl ? 0 : size);
    }

    /** Of a batch. One function for all of them, made once.
     * @type {(number: number, channel: string, text: string) => void} */
    #takeText = (number, channel, text) => {
        if (this.#isNew(number)) this.#tell(() => this.#handlers.onText?.(channel, text));
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
                return this.#handled.withdraw(message.number);
            case "refused":
                return this.#handlers.onRefused?.(message.what, message.channel, message.reason);
            case "echo":
                return this.#echoed(message);
            case "engine":
                return this.#line.silent(
                    message.state === "silent" ? Number(message.milliseconds ?? 0) : null,
                );
            default:
                return undefined;
        }
    }

    /** @param {Hello} hello */
    #welcome(hello) {
        if (hello.kind !== "return") {
            this.#handled.begin(hello.next);
            this.#refusedNumbers = [];
            this.#kind = hello.kind;
            this.#isAnnounced = false;
            this.#failed = false;
        }
        this.#handled.connected(hello.limits);
        this.#hello = hello;
        this.#view = hello.view;
        this.#blockChannels = [...hello.blockChannels];
        this.#assembly.clear();
        const { returnMilliseconds = 0 } = hello.limits;
        this.#line.alsoAt(hello.gateways ?? []);
        this.#line.welcomed(hello.ended ? `begun afresh: ${hello.ended}` : "", returnMilliseconds);
        // Before all else, so that what comes because the page is ready has the right stamps.
        this.#clock?.begin();
        this.#configure(hello.configuration);
        this.#correctSubscriptions(hello);
        for (const channel of hello.refused) {
            this.#handlers.onRefused?.("subscribe", channel, "not allowed");
        }
        this.#sendKept();
        this.#tell(() => this.#handlers.onHello?.(hello));
        if (!this.#isAnnounced) this.#announce(hello);
    }

    /** @param {Configuration} configuration */
    #configure(configuration) {
        const { subscribe } = this.#options;
        if (typeof subscribe !== "function") return;
        for (const name of this.#configured) this.#subscriptions.delete(name);
        this.#configured = [];
        this.#tell(() => (this.#configured = subscribe(configuration).map(channelName)));
        for (const name of this.#configured) this.#subscriptions.add(name);
    }

    /** What changed since the page's hello, or did not fit into it; and a view that is returned to
     * still hears what was given up meanwhile. @param {Hello} hello */
    #correctSubscriptions({ subscribed, refused }) {
        const known = new Set([...subscribed, ...refused]);
        const names = [...this.#subscriptions].filter((name) => !known.has(name));
        this.#sendNames("subscribe", names);
        const givenUp = subscribed.filter((name) => !this.#subscriptions.has(name));
        this.#sendNames("unsubscribe", givenUp);
    }

    #sendKept() {
        this.#queued = 0;
        for (const message of this.#queue.splice(0)) {
            this.#tell(() => {
                this.#demandSize(message);
                this.#sendEncoded(message);
            });
        }
    }

    /** Once the gateway has echoed, what was subscribed is in force: the engine may send. Without
     * the second echo it is not known that the announcement arrived: after a return it is made
     * again. @param {Hello} hello */
    #announce(hello) {
        this.#echo(() => {
            const { announce, client } = this.#options;
            const channel =
                typeof announce === "function" ? announce(hello.configuration) : announce;
            // Not the view's identifier, which is secret.
            if (channel) this.publish(channel, JSON.stringify({ kind: this.#kind, client }));
            this.#tell(() => this.#handlers.onReady?.(hello));
            this.#echo(() => {
                this.#isAnnounced = true;
            });
        });
    }

    /** @param {ArrayBuffer} frame */
    #receiveBlock(frame) {
        const piece = readBlockFrame(frame);
        if (!piece) return;
        const { transfer, number } = piece;
        try {
            const block = this.#assembly.add(piece);
            if (!block) return;
            const channel = this.#blockChannels[piece.channel - 1] ?? "";
            if (this.#isNew(number)) this.#handlers.onBlock?.(channel, block);
            this.#send({ t: "block", transfer, ok: true });
        } catch (error) {
            this.#fault(error);
            this.#isNew(number);
            if (this.#refusedNumbers.push(number) > MOST_REFUSED) this.#refusedNumbers.shift();
            const reason = cutTo(String(error), MOST_TEXT_BYTES);
            this.#send({ t: "block", transfer, ok: false, reason });
        }
    }

    /** Counts the message as handled; returns false if it was already.
     * @param {number} number */
    #isNew(number) {
        const missing = this.#handled.take(number);
        if (missing > 0) {
            this.#fault(new Error(`messages ${number - missing} to ${number - 1} are missing`));
        }
        return missing >= 0;
    }

    // --- Sending ------------------------------------------------------------------------------

    /** @returns {number} bytes of the largest frame that the gateway takes, as far as it is known */
    #mostBytes() {
        return this.#hello?.limits.message ?? Infinity;
    }

    /** @param {Encoded} message */
    #demandSize({ bytes }) {
        const most = this.#mostBytes();
        if (bytes <= most) return;
        throw new RangeError(`a message of ${bytes} bytes as JSON: the gateway takes ${most}`);
    }

    /** @param {string} t @param {string[]} channels */
    #sendNames(t, channels) {
        const rest = [...channels];
        // Room for the rest of the message.
        const most = this.#mostBytes() - 64;
        while (rest.length > 0) {
            const names = takeNames(rest, most, this.#hello?.limits.names);
            this.#sendEncoded(encode({ t, channels: names }, names.length));
        }
    }

    /** The number of one of the page's own block channels. @param {string} name */
    #numberOf(name) {
        const known = this.#ownChannels.get(name);
        if (known !== undefined) {
            this.#ownChannels.delete(name);
            this.#ownChannels.set(name, known);
            return known;
        }
        let number = this.#ownChannels.size + 1;
        if (number > OWN_CHANNELS) {
            const [[longest, freed]] = this.#ownChannels;
            this.#ownChannels.delete(longest);
            number = freed;
        }
        this.#ownChannels.set(name, number);
        this.#send({ t: "channel", number, name });
        return number;
    }

    /** @param {(message: any) => void} then called when everything before was acted upon, with the
     * answer @param {object} [members] what else is asked */
    #echo(then, members = {}) {
        const id = ++this.#lastEcho;
        this.#echoes.set(id, then);
        this.#send({ t: "echo", id, ...members });
    }

    /** @param {{id: number}} message */
    #echoed(message) {
        const then = this.#echoes.get(message.id);
        this.#echoes.delete(message.id);
        then?.(message);
    }

    /** @param {object} message */
    #send(message) {
        this.#sendEncoded(encode(message));
    }

    /** Collects what is sent in one turn. @param {Encoded} message */
    #sendEncoded(message) {
        if (this.#outgoing.push(message) === 1) queueMicrotask(() => this.#flush());
    }

    #flush() {
        if (!this.#line.isLive) return;
        const messages = this.#outgoing.splice(0);
        for (const frame of framesOf(messages, this.#mostBytes(), this.#hello?.limits.names)) {
            this.#write(frame);
        }
    }

    /** @param {string} frame */
    #write(frame) {
        this.sent += frame.length;
        this.#line.send(frame);
    }

    // --- Telling ------------------------------------------------------------------------------

    /** What a handler throws is a fault. @param {() => void} call */
    #tell(call) {
        try {
            call();
        } catch (error) {
            this.#fault(error);
        }
    }

    /** @param {unknown} thrown */
    #fault(thrown) {
        const error = thrown instanceof Error ? thrown : new Error(String(thrown));
        this.#failed = true;
        if (this.#handlers.onFault) this.#handlers.onFault(error);
        else this.reportError(error);
    }
}
