export { CLOSE_CODES } from "./close_codes.mjs";
export { readJson } from "./wire.mjs";
/** Where script errors go. */
export const ERROR_CHANNEL: "/services/ErrorLoggingService/JSErrors";
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
    /** Begins to connect.
     * @param {string} url for a page of the gateway's own: `gatewayAddress()`
     * @param {Handlers} handlers @param {Options} [options] */
    constructor(url: string, handlers: Handlers, options?: Options);
    /** Bytes and characters of frames, since the page began. */
    received: number;
    sent: number;
    get state(): import("./line.mjs").State;
    /** The number of the last message handled. */
    get last(): number;
    /** How far the engine's clock is ahead of the option `clock`; null: it is not known. */
    get engineClock(): import("./engine_clock.mjs").Clock | null;
    /** Publishes a text, or keeps it until the connection is there again. Returns false, and drops
     * it, when too much is kept already. Throws a RangeError, with both sizes, for a text that is
     * larger than the gateway takes and for a channel whose name has more than 1024 bytes. A text
     * that was kept and turns out to be too large is a fault.
     * @param {string} channel @param {string} text @returns {boolean} */
    publish(channel: string, text: string): boolean;
    /** Sends a block, 8 bytes of identifier included, at once; returns false when there is no
     * connection. Throws a RangeError like `publish`. More than 16 channels take turns with the
     * numbers that there are: the one that was not used for the longest time gives its own away.
     * @param {string} channel @param {Uint8Array} block @returns {boolean} */
    publishBlock(channel: string, block: Uint8Array): boolean;
    /** Returns the token of a "sendACT" command, with the members of its reply: what came before it
     * is drawn. Where that is not so, because something could not be read or a handler threw since
     * the last token, it is not returned and the answer is false: the engine's wait then ends by
     * its time-out, not as if the page had drawn.
     * @param {Record<string, any>} command @param {Record<string, any>} [members]
     * @returns {boolean} */
    returnToken({ ACT, returnChannel, serverSendTS }: Record<string, any>, members?: Record<string, any>): boolean;
    /** Tells the engine of a script error, of which no more goes out than any gateway takes.
     * @param {Error} error */
    reportError({ message, stack }: Error): void;
    /** Throws a RangeError for a name of more than 1024 bytes.
     * @param {string[]} channels a name that ends in "/*" stands for all that begin so */
    subscribe(channels: string[]): void;
    /** Throws as `subscribe` does. @param {string[]} channels */
    unsubscribe(channels: string[]): void;
    /** Tries again now, also after a refusal. Does nothing while a connection is there or coming. */
    retry(): void;
    /** Ends the view. */
    close(): void;
    #private;
}
export type State = import("./line.mjs").State;
/**
 * the gateway's
 */
export type Hello = {
    /**
     * secret: it lets its holder return
     */
    view: string;
    kind: "first" | "further" | "return";
    next: number;
    blockChannels: string[];
    subscribed: string[];
    refused: string[];
    ended?: string | undefined;
    /**
     * addresses of others that lead to the same engine
     */
    gateways?: string[] | undefined;
    limits: Record<string, number>;
    configuration: Record<string, any>;
};
/**
 * What is called when something comes, in the order of arrival. Only `onState` may be called
 * inside a call of one of the connection's operations.
 */
export type Handlers = {
    onState?: ((state: State) => void) | undefined;
    /**
     * the connection is live; also after a return
     */
    onHello?: ((hello: Hello) => void) | undefined;
    /**
     * what was subscribed is in force and the view is
     * announced: what the page publishes now comes behind that. Once for each new view, and again if
     * the connection is lost before it is known that the gateway has it
     */
    onReady?: ((hello: Hello) => void) | undefined;
    /**
     * what it throws is a fault
     */
    onText?: ((channel: string, text: string) => void) | undefined;
    /**
     * with the block's 8 bytes of
     * identifier. What it throws is a fault and gives the block back to the engine
     */
    onBlock?: ((channel: string, block: Uint8Array) => void) | undefined;
    /**
     * a request
     */
    onRefused?: ((what: string, channel: string, reason: string) => void) | undefined;
    /**
     * something came that cannot be read or handled, or
     * did not come. Without this handler the engine is told, on `ERROR_CHANNEL`
     */
    onFault?: ((error: Error) => void) | undefined;
};
export type Access = import("./access.mjs").Access;
export type Configuration = Record<string, any>;
export type Options = {
    /**
     * a name for the program's log; its first 256 bytes count
     */
    client?: string | undefined;
    /**
     * channels from the
     * start, or what they are by the gateway's hello
     */
    subscribe?: string[] | ((configuration: Configuration) => string[]) | undefined;
    /**
     * the channel
     * on which each new view is announced, once what it subscribed is in force; absent or empty: none.
     * For a channel that the gateway announces views on itself (`newViewChannel`) leave it out
     */
    announce?: string | ((configuration: Configuration) => string | undefined) | undefined;
    /**
     * for a client that is no page; a page has what its link brought
     */
    token?: string | undefined;
    /**
     * how it gets in, if neither a token nor the tab's link says
     */
    access?: import("./access.mjs").Access | undefined;
    /**
     * the constructor, where it is not the global one
     */
    WebSocket?: any;
    /**
     * its third argument, for the npm package `ws`
     */
    socketOptions?: any;
    /**
     * from 0 to below 1
     */
    random?: (() => number) | undefined;
    /**
     * microseconds since 1970, for stamps that the engine is to get:
     * what is to be added to them is measured then, see `engineClock`
     */
    clock?: (() => number) | undefined;
    /**
     * before another attempt
     */
    backoff?: import("./backoff.mjs").Waits | undefined;
    /**
     * milliseconds for a
     * connection to come about, of silence before the gateway is asked for a sign of life, and for
     * that
     */
    patience?: {
        open: number;
        quiet: number;
        answer: number;
    } | undefined;
    /**
     * bytes, as JSON, kept for a connection that is not there
     */
    queueSize?: number | undefined;
    /**
     * bytes of the largest block that is taken
     */
    blockSize?: number | undefined;
};
export type Encoded = import("./outgoing.mjs").Encoded;
export { gatewayAddress, tabAccess } from "./access.mjs";
