// A connection of a page's to a scripted gateway, and what the page is told.
import { EventEmitter, once } from "node:events";
import { afterEach, beforeEach } from "node:test";

import { Connection } from "../../../client/protocol.mjs";
import { WebSocket } from "./packages.mjs";
import { ScriptedGateway } from "./scripted_gateway.mjs";

/** What the page was told, in order. */
class Heard extends EventEmitter {
    events = [];
    note(...event) {
        this.events.push(event);
        this.emit("told");
    }
    /** Ends when an event has these members, or has had. */
    async until(...members) {
        const isWanted = (event) => members.every((member, i) => event[i] === member);
        while (!this.events.some(isWanted)) await once(this, "told");
    }
    of(...kinds) {
        return this.events.filter(([kind]) => kinds.includes(kind));
    }
    handlers = {
        onState: (state) => this.note("state", state.name, state.reason),
        onReady: (hello) => this.note("ready", hello.kind),
        onText: (channel, text) => this.note("text", channel, text),
        onBlock: (channel, block) => this.note("block", channel, [...block]),
        onRefused: (_, channel) => this.note("refused", channel),
        onFault: (error) => this.note("fault", error.message),
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
