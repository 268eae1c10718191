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
    /** @param {string} url @param {Settings} settings @param {Events} events */
    constructor(url: string, settings: Settings, events: Events);
    get state(): State;
    /** Whether the gateway has said hello. */
    get isLive(): boolean;
    /** The gateway has said hello. @param {string} reason for the state
     * @param {number} keptFor milliseconds for which it keeps a view */
    welcomed(reason: string, keptFor: number): void;
    /** Other addresses of the same program, for when this one is lost. @param {string[]} urls */
    alsoAt(urls: string[]): void;
    /** The connection is there, but it leads to a program that has said nothing for a while.
     * @param {number | null} milliseconds null: it is heard again */
    silent(milliseconds: number | null): void;
    /** @param {string | Uint8Array} frame */
    send(frame: string | Uint8Array): void;
    /** Tries again now, also after a refusal. Does nothing while a connection is there or coming. */
    retry(): void;
    /** For good. */
    close(): void;
    #private;
}
export type State = {
    /**
     *   refused: the gateway does not want this page, and nothing is tried until `retry`
     */
    name: "connecting" | "live" | "reconnecting" | "refused" | "closed";
    /**
     * why it is so, and what to do; may be empty
     */
    reason: string;
    /**
     * when the program was heard last, in milliseconds since 1970, if that is
     * not now; 0: it is heard, never was, or nobody waits for it
     */
    since: number;
};
export type Settings = {
    /**
     * null: no token is offered
     */
    access: import("./access.mjs").Access | null;
    /**
     * the constructor
     */
    WebSocket: any;
    socketOptions: any;
    random: () => number;
    backoff: import("./backoff.mjs").Waits;
    /**
     * milliseconds
     */
    patience: {
        open: number;
        quiet: number;
        answer: number;
    };
};
export type Events = {
    stateChanged: (state: State) => void;
    /**
     * says hello
     */
    opened: () => void;
    received: (data: string | ArrayBuffer) => void;
    /**
     * nothing came for a while: asks for a sign of life
     */
    silent: () => void;
    /**
     * nothing that was begun
     * on the connection goes on
     */
    lost: (next: import("./close_codes.mjs").NextAttempt) => void;
};
