// One connection after another to the same address: each is opened with the token, watched, and when
// it is lost made again.

import { Backoff } from "./backoff.mjs";
import { CLOSE_CODES, nextAttempt } from "./close_codes.mjs";

const SUBPROTOCOL = "kiroweb.v1";
const TOKEN_PREFIX = "kiroweb.token.";
/** So many failures in a row, with the program there, mean that it does not want the page. A single
 * one may be chance: a network that came back a moment too late for the attempt. */
const TURNED_AWAY = 2;
/** So many failures in a row at one address, and the next attempt goes elsewhere. A single one may be
 * chance here, too, and elsewhere the view is another one. */
const NOBODY_THERE = 2;
const NO_TOKEN = "this tab has no token: open the link that the program printed";
const WRONG_TOKEN =
    "the program does not accept this tab's token: open the link that the program printed last";
const NOT_REACHED =
    "no engine answers to this link yet; if that lasts, open the link that the program printed last";

/**
 * @typedef {object} State
 * @property {"connecting" | "live" | "reconnecting" | "refused" | "closed"} name
 *   refused: the gateway does not want this page, and nothing is tried until `retry`
 * @property {string} reason why it is so, and what to do; may be empty
 * @property {number} since when the program was heard last, in milliseconds since 1970, if that is
 *   not now; 0: it is heard, never was, or nobody waits for it
 */

/**
 * @typedef {object} Settings
 * @property {import("./access.mjs").Access | null} access null: no token is offered
 * @property {any} WebSocket the constructor
 * @property {any} socketOptions
 * @property {() => number} random
 * @property {import("./backoff.mjs").Waits} backoff
 * @property {{open: number, quiet: number, answer: number}} patience milliseconds
 */

/**
 * @typedef {object} Events
 * @property {(state: State) => void} stateChanged
 * @property {() => void} opened says hello
 * @property {(data: string | ArrayBuffer) => void} received
 * @property {() => void} silent nothing came for a while: asks for a sign of life
 * @property {(next: import("./close_codes.mjs").NextAttempt) => void} lost nothing that was begun
 *   on the connection goes on
 */

/** Connects at once, and again and again until it is refused or closed. */
export class Line {
    /** Where the page itself came from, which is where `Access.isServed` asks. */
    #own;
    /** Where the program is found; the first is where the next attempt goes. @type {string[]} */
    #urls;
    /** Attempts in a row that failed there. */
    #failed = 0;
    #settings;
    #events;
    /** @type {State} */
    #state = { name: "connecting", reason: "", since: 0 };
    /** When the program was heard last, in milliseconds since 1970; 0: now, or never. It outlives
     * the connection, so that whoever looks at an old picture knows how old it is. */
    #lastHeard = 0;
    /** The connection that is there or coming; its socket comes with the token.
     * @type {{socket: any, opened: boolean} | null} */
    #attempt = null;
    #isLive = false;
    #backoff;
    /** Attempts in a row at the page's own address that failed although the program is there. */
    #turnedAway = 0;
    /** Milliseconds for which a lost connection can be returned to. */
    #keptFor = 0;
    /** @type {Map<string, ReturnType<typeof setTimeout>>} */
    #timers = new Map();

    /** @param {string} url @param {Settings} settings @param {Events} events */
    constructor(url, settings, events) {
        this.#own = url;
        this.#urls = [url];
        this.#settings = settings;
        this.#events = events;
        this.#backoff = new Backoff(settings.backoff, settings.random);
        settings.access?.whenLinkOpened?.(() => this.retry());
        queueMicrotask(() => this.#connect());
    }

    get state() {
        return this.#state;
    }
    /** Whether the gateway has said hello. */
    get isLive() {
        return this.#isLive;
    }

    /** The gateway has said hello. @param {string} reason for the state
     * @param {number} keptFor milliseconds for which it keeps a view */
    welcomed(reason, keptFor) {
        this.#backoff.reset();
        this.#turnedAway = 0;
        this.#failed = 0;
        this.#keptFor = keptFor;
        this.#clearTimers();
        this.#isLive = true;
        this.#lastHeard = 0;
        this.#watchForSilence();
        this.#setState("live", reason);
    }

    /** Other addresses of the same program, for when this one is lost. @param {string[]} urls */
    alsoAt(urls) {
        this.#urls = [...new Set([this.#urls[0], ...urls, this.#own])];
    }

    /** The connection is there, but it leads to a program that has said nothing for a while.
     * @param {number | null} milliseconds null: it is heard again */
    silent(milliseconds) {
        if (!this.#isLive) return;
        if (milliseconds === null) this.#lastHeard = 0;
        else this.#lastHeard ||= Date.now() - milliseconds;
        this.#setState("live", milliseconds === null ? "" : "engine silent");
    }

    /** @param {string | Uint8Array} frame */
    send(frame) {
        this.#attempt?.socket?.send(frame);
    }

    /** Tries again now, also after a refusal. Does nothing while a connection is there or coming. */
    retry() {
        if (this.#attempt) return;
        this.#backoff.reset();
        this.#turnedAway = 0;
        this.#setState("connecting", "");
        this.#connect();
    }

    /** For good. */
    close() {
        const socket = this.#detach("afresh");
        this.#setState("closed", "");
        socket?.close(1000);
    }

    async #connect() {
        if (this.#attempt || this.#state.name === "closed") return;
        this.#clearTimers();
        const attempt = { socket: null, opened: false };
        this.#attempt = attempt;
        const { access, patience } = this.#settings;
        this.#after("open", patience.open, () => this.#abandon("no answer from the program"));
        try {
            const token = await access?.token();
            if (this.#attempt !== attempt) return;
            if (token === "") {
                this.#detach("return");
                this.#refuse(NO_TOKEN);
            } else {
                this.#open(attempt, token ? [SUBPROTOCOL, TOKEN_PREFIX + token] : [SUBPROTOCOL]);
            }
        } catch (error) {
            if (this.#attempt === attempt) this.#abandon(String(error));
        }
    }

    /** @param {{socket: any, opened: boolean}} attempt @param {string[]} protocols */
    #open(attempt, protocols) {
        const { WebSocket, socketOptions } = this.#settings;
        const socket = new WebSocket(this.#urls[0], protocols, socketOptions);
        attempt.socket = socket;
        socket.binaryType = "arraybuffer";
        // A socket that was let go of has nothing to say any more.
        const ifCurrent =
            (/** @type {(event: any) => void} */ handle) => (/** @type {any} */ event) => {
                if (this.#attempt === attempt) handle(event);
            };
        socket.onopen = ifCurrent(() => {
            attempt.opened = true;
            this.#events.opened();
        });
        socket.onmessage = ifCurrent((event) => {
            if (this.#isLive) this.#watchForSilence();
            this.#events.received(event.data);
        });
        // The close event that follows has all there is to know; the npm package throws without this.
        socket.onerror = () => {};
        socket.onclose = ifCurrent(({ code, reason }) =>
            this.#closed(attempt.opened, code, reason),
        );
    }

    /** @param {boolean} opened @param {number} code @param {string} reason */
    async #closed(opened, code, reason) {
        const next = nextAttempt(code);
        // What another address does not take says nothing about the token.
        const isTelling = !opened && this.#urls[0] === this.#own;
        this.#detach(next);
        if (code === CLOSE_CODES.stopped) this.#moveOn();
        else if (!opened) this.#failedHere();
        const why = reason || (opened ? `connection lost (${code})` : "no connection");
        if (next === "refused") return this.#refuse(why);
        this.#setState("reconnecting", why);
        if (opened) this.#turnedAway = 0;
        if (!isTelling) return this.#connectLater();
        const isServed = await this.#isServed();
        // The program was asked meanwhile; somebody else may have connected or closed.
        if (this.#attempt || this.#state.name !== "reconnecting") return undefined;
        if (isServed === false) this.#setState("reconnecting", NOT_REACHED);
        this.#turnedAway = isServed ? this.#turnedAway + 1 : 0;
        if (this.#turnedAway < TURNED_AWAY) return this.#connectLater();
        return this.#refuse(WRONG_TOKEN);
    }

    /** Null, if that cannot be found out in time. @returns {Promise<boolean | null>} */
    #isServed() {
        const { access, patience } = this.#settings;
        return new Promise((resolve) => {
            this.#after("served", patience.open, () => resolve(null));
            if (access) access.isServed().then(resolve, () => resolve(null));
            else resolve(null);
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
        if (!this.#attempt?.opened) this.#failedHere();
        const socket = this.#detach("return");
        this.#setState("reconnecting", reason);
        socket?.close(CLOSE_CODES.givenUp);
        this.#connectLater();
    }

    /** @param {import("./close_codes.mjs").NextAttempt} next */
    #detach(next) {
        const socket = this.#attempt?.socket;
        if (this.#isLive) {
            this.#backoff.lost(this.#keptFor);
            this.#lastHeard ||= Date.now();
        }
        this.#attempt = null;
        this.#isLive = false;
        this.#clearTimers();
        this.#events.lost(next);
        return socket;
    }

    #failedHere() {
        if (++this.#failed >= NOBODY_THERE) this.#moveOn();
    }

    /** Nobody is there, or not for long: the next attempt goes elsewhere, if there is an elsewhere. */
    #moveOn() {
        this.#failed = 0;
        const [here, ...others] = this.#urls;
        this.#urls = [...others, here];
    }

    #connectLater() {
        if (this.#attempt || this.#state.name === "closed") return;
        this.#after("connect", this.#backoff.next(), () => this.#connect());
    }

    #watchForSilence() {
        const { quiet, answer } = this.#settings.patience;
        clearTimeout(this.#timers.get("answer"));
        this.#after("quiet", quiet, () => {
            this.#events.silent();
            this.#after("answer", answer, () => this.#abandon("the connection has gone silent"));
        });
    }

    /** @param {State["name"]} name @param {string} reason */
    #setState(name, reason) {
        if (this.#state.name === "closed") return;
        const isWaiting = name !== "refused" && name !== "closed";
        this.#state = { name, reason, since: isWaiting ? this.#lastHeard : 0 };
        this.#events.stateChanged(this.#state);
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
