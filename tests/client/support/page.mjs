// A connection of a page's to a scripted gateway, and what the page is told.
import { afterEach, beforeEach } from "node:test";

import { Connection } from "../../../client/protocol.mjs";
import { WebSocket } from "./packages.mjs";
import { ScriptedGateway } from "./scripted_gateway.mjs";

/** What the page was told, in order, and promises of what it is told next. */
class Heard {
    events = [];
    #waits = [];
    note = (...event) => {
        this.events.push(event);
        this.#waits = this.#waits.filter(({ wanted, resolve }) => !wanted(event) || resolve());
    };
    /** Ends when an event has these members, or has had. */
    until(...members) {
        const wanted = (event) => members.every((member, i) => event[i] === member);
        if (this.events.some(wanted)) return Promise.resolve();
        return new Promise((resolve) => this.#waits.push({ wanted, resolve }));
    }
    of(...kinds) {
        return this.events.filter(([kind]) => kinds.includes(kind));
    }
    handlers = {
        onState: (state) => this.note("state", state.name, state.reason),
        onReady: (hello) => this.note("ready", hello.kind),
        onText: (channel, text) => this.note("text", channel, text),
        onBlock: (channel, block) => this.note("block", channel, [...block]),
        onFault: (error) => this.note("fault", error.message),
        onRefused: (what, channel) => this.note("refused", what, channel),
    };
}

/** Fresh for each test of a file. */
export class Fixture {
    constructor() {
        beforeEach(async () => {
            this.gateway = await ScriptedGateway.start();
            this.heard = new Heard();
        });
        afterEach(() => {
            this.page?.close();
            this.gateway.stop();
        });
    }
    /** Begins to connect, with no delay before a further attempt. */
    begin(options) {
        const backoff = { first: 0, soon: 0, most: 0 };
        const { url } = this.gateway;
        this.page = new Connection(url, this.heard.handlers, { WebSocket, backoff, ...options });
    }
    /** The page's next connection, to which the gateway has said hello. */
    async peer(welcome) {
        const peer = await this.gateway.peer();
        await peer.welcome(welcome);
        return peer;
    }
    async connect(options, welcome) {
        this.begin(options);
        const peer = await this.peer(welcome);
        await this.heard.until("state", "live");
        return peer;
    }
    /** Ends when the page has handled everything before. */
    async settled(peer, number, text = "") {
        peer.batch(number, [["/end", text]]);
        await this.heard.until("text", "/end", text);
    }
}
