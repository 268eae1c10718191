// A gateway that says what a test tells it to say, and keeps what it hears.
import { once } from "node:events";

import { WebSocketServer } from "./packages.mjs";

/** Values in the order of coming; whoever asks for one waits for it. */
class Inflow {
    #values = [];
    #waiting = [];
    put(value) {
        const wanted = this.#waiting.shift();
        if (wanted) wanted(value);
        else this.#values.push(value);
    }
    next() {
        if (this.#values.length > 0) return Promise.resolve(this.#values.shift());
        return new Promise((resolve) => this.#waiting.push(resolve));
    }
}

/** One connection of a page. */
class Peer {
    #socket;
    #messages = new Inflow();
    constructor(socket) {
        this.#socket = socket;
        socket.on("message", (data) => {
            for (const message of [JSON.parse(data)].flat()) this.#messages.put(message);
        });
    }
    /** The next message of this kind; others before it are passed over. */
    async next(t) {
        for (;;) {
            const message = await this.#messages.next();
            if (message.t === t) return message;
        }
    }
    /** Answers the hello, and returns it. */
    async welcome(members = {}) {
        const hello = await this.next("hello");
        this.control({
            t: "hello", version: 1, server: "scripted", view: "v1", kind: "first", next: 1,
            blockChannels: [], subscribed: hello.subscribe, refused: [], configuration: {},
            limits: { message: 4096, ackBytes: 1e6, ackMilliseconds: 1e6 }, ...members,
        });
        return hello;
    }
    control(object) {
        this.raw(JSON.stringify(object));
    }
    /** Records of [channel, text], the first with this number. */
    batch(number, records) {
        this.raw(number + records.map(([c, text]) => `\x1e${c}\x1f${text}`).join(""));
    }
    /** A block or a piece of one. */
    piece({ last = true, channel = 1, transfer = 1, number, data }) {
        const frame = Buffer.alloc(16 + data.length);
        frame.writeUInt8(1, 0);
        frame.writeUInt8(last ? 1 : 0, 1);
        frame.writeUInt16LE(channel, 2);
        frame.writeUInt32LE(transfer, 4);
        frame.writeBigUInt64LE(BigInt(number), 8);
        frame.set(data, 16);
        this.raw(frame);
    }
    raw(data) {
        this.#socket.send(data);
    }
    close(code, reason) {
        this.#socket.close(code, reason);
    }
    /** Ends the connection without a close frame. */
    cut() {
        this.#socket.terminate();
    }
}

/** Serves on a free port of the loopback interface. */
export class ScriptedGateway {
    #peers = new Inflow();
    static async start() {
        const gateway = new ScriptedGateway();
        gateway.sockets = new WebSocketServer({ host: "127.0.0.1", port: 0 });
        gateway.sockets.on("connection", (socket) => gateway.#peers.put(new Peer(socket)));
        await once(gateway.sockets, "listening");
        gateway.url = `ws://127.0.0.1:${gateway.sockets.address().port}/kiroweb`;
        return gateway;
    }
    /** The next connection of a page. */
    peer() {
        return this.#peers.next();
    }
    stop() {
        for (const socket of this.sockets.clients) socket.terminate();
        this.sockets.close();
    }
}
