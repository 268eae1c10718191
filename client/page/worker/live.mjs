// Frames from an engine: the connection, what comes on it, and what goes back.

import { Connection } from "../../protocol.mjs";
import { VOCABULARY } from "../messages.mjs";
import { Frames, stampsOf } from "./frames.mjs";
import { Inbox } from "./inbox.mjs";
import { Latencies, MOST_LIVE } from "./latencies.mjs";

/** @typedef {import("./frames.mjs").Frame} Frame */
/** @typedef {import("../messages.mjs").Outcome} Outcome */
/** @typedef {import("../messages.mjs").ToMain} ToMain */

/**
 * Where a session's frames come from. Each frame with a token is answered.
 * @typedef {object} Source
 * @property {string} title
 * @property {number} received bytes
 * @property {import("./latencies.mjs").Latencies} latencies
 * @property {(frame: Frame, outcome: Outcome, sent: number) => void} answer sent: when, microseconds
 *   since 1970
 * @property {(event: Record<string, any>) => void} publish what somebody did
 * @property {(error: Error) => void} reportError
 * @property {() => void} askForAll what was drawn may lack something
 * @property {() => void} retry
 * @property {() => void} close for good
 */

/**
 * @typedef {object} Surroundings
 * @property {(frame: Frame) => void} take
 * @property {(kind: "new view" | "return" | "gone") => void} changed "new view": nothing that was
 *   there means anything any more
 * @property {() => void} heard something came
 * @property {(error: Error) => void} report
 * @property {(message: ToMain) => void} post to the main thread
 * @property {() => number} now microseconds since 1970
 * @property {import("../../access.mjs").Access} access
 * @property {import("../../protocol.mjs").Options} [options] of the connection
 */

/** @implements {Source} */
export class Live {
    #surroundings;
    #connection;
    #frames;
    #inbox = new Inbox({ take: () => {}, report: () => {} });
    /** What the hello says. @type {Record<string, any>} */
    #channels = {};
    #isLive = false;
    latencies = new Latencies(MOST_LIVE);

    /** @param {string} address @param {Surroundings} surroundings */
    constructor(address, surroundings) {
        this.#surroundings = surroundings;
        const { access, options, take, now, report } = surroundings;
        this.#frames = new Frames(take, now);
        this.#connection = new Connection(
            address,
            {
                onState: (state) => this.#stateChanged(state),
                onHello: (hello) => this.#begin(hello),
                onReady: () => this.#sayReady(),
                onText: (channel, text) => this.#text(channel, text),
                onBlock: (channel, block) => this.#block(channel, block),
                onRefused: (what, channel, reason) =>
                    report(new Error(`${what} ${channel}: ${reason}`)),
                onFault: (error) => this.#fail(error),
            },
            {
                client: "kirofigures page",
                subscribe: ({ vocabulary, commands, blocks }) =>
                    vocabulary === VOCABULARY ? [commands, blocks] : [],
                announce: ({ vocabulary, newView }) =>
                    vocabulary === VOCABULARY ? newView : undefined,
                access,
                clock: now,
                ...options,
            },
        );
    }

    get title() {
        return String(this.#channels.title ?? "");
    }
    get received() {
        return this.#connection.received;
    }
    /** How far the engine's clock is ahead of the page's, in microseconds; null: it is not known. */
    get clock() {
        return this.#connection.engineClock;
    }

    /** @param {Frame} frame @param {Outcome} outcome @param {number} sent */
    answer(frame, outcome, sent) {
        const { number, attempt, error, token, begun } = frame;
        if (!token) return;
        const { ACT, serverSendTS, returnChannel } = token.command;
        const text = outcome === "failed" ? { error: error?.message } : {};
        const all = stampsOf(frame, sent, this.clock?.shift);
        const { clientReceive, clientPaint, clientSend } = all;
        const stamps = begun ? { clientPaint, clientSend } : {};
        this.publish({ event: "frame", frame: number, attempt, outcome, ...text, ...stamps });
        const reply = {
            ACT,
            serverSendTS,
            clientReceiveTS: clientReceive,
            clientSendTS: clientSend,
        };
        if (outcome === "painted") this.latencies.add(sent / 1000, all);
        this.#connection.publish(String(returnChannel), JSON.stringify(reply));
    }
    /** @param {Record<string, any>} event */
    publish(event) {
        const { events } = this.#channels;
        if (events) this.#connection.publish(events, JSON.stringify(event));
    }
    /** @param {Error} error */
    reportError(error) {
        this.#connection.reportError(error);
    }
    askForAll() {
        const { newView } = this.#channels;
        if (newView) this.#connection.publish(newView, "{}");
    }
    retry() {
        this.#connection.retry();
    }
    close() {
        this.#frames.forget();
        this.#connection.close();
    }

    /** @param {import("../../line.mjs").State} state */
    #stateChanged({ name, reason, since }) {
        const isLive = name === "live";
        if (this.#isLive && !isLive) this.#surroundings.changed("gone");
        this.#isLive = isLive;
        this.#surroundings.post({ kind: "state", name, reason, since });
    }

    /** @param {import("../../protocol.mjs").Hello} hello */
    #begin({ kind, configuration }) {
        const isKnown = configuration.vocabulary === VOCABULARY;
        this.#surroundings.post({ kind: "hello", configuration, known: isKnown });
        this.#surroundings.changed(kind === "return" ? "return" : "new view");
        if (kind === "return") return;
        this.#channels = isKnown ? configuration : {};
        this.#frames.forget();
        this.#inbox = new Inbox({
            take: (command, data) => this.#frames.take(command, data),
            report: (error) => this.#fail(error),
        });
    }

    /** The engine may send: nothing of it is missed. */
    #sayReady() {
        const ready = { binaryChannelStatus: 1, useFastBinary: 1 };
        const { ready: channel } = this.#channels;
        if (channel) this.#connection.publish(channel, JSON.stringify(ready));
    }

    /** @param {string} channel @param {string} text */
    #text(channel, text) {
        if (channel !== this.#channels.commands) return;
        this.#surroundings.heard();
        this.#inbox.text(text);
    }

    /** @param {string} channel @param {Uint8Array} block */
    #block(channel, block) {
        if (channel !== this.#channels.blocks) return;
        this.#surroundings.heard();
        this.#inbox.block(block);
    }

    /** Something of the frame that is coming cannot be drawn. @param {Error} error */
    #fail(error) {
        this.#frames.fail(error);
        this.#surroundings.report(error);
    }
}
