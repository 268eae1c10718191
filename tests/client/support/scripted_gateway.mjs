// A gateway that says what a test tells it to say, and keeps what it hears.
import { on, once } from "node:events";

import { WebSocketServer } from "./packages.mjs";

/** One connection of a page. */
class Peer {
    #socket;
    #frames;
    #messages = [];
    constructor(socket) {
        this.#socket = socket;
        this.#frames = on(socket, "message");
    }
    /** The next message of this kind; others before it are passed over. */
    async next(t) {
        for (;;) {
            const message = this.#messages.shift();
            if (message?.t === t) return message;
            if (message) continue;
            const { value } = await this.#frames.next();
            this.#messages = [JSON.parse(value[0])].flat();
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
    #peers;
    static async start() {
        const gateway = new ScriptedGateway();
        gateway.sockets = new WebSocketServer({ host: "127.0.0.1", port: 0 });
        const { sockets } = gateway;
        gateway.#peers = on(sockets, "peer");
        sockets.on("connection", (socket) => sockets.emit("peer", new Peer(socket)));
        await once(gateway.sockets, "listening");
        gateway.url = `ws://127.0.0.1:${gateway.sockets.address().port}/kiroweb`;
        return gateway;
    }
    /** The next connection of a page. */
    async peer() {
        return (await this.#peers.next()).value[0];
    }
    stop() {
        for (const socket of this.sockets.clients) socket.terminate();
        this.sockets.close();
    }
}
