// A gateway that says what a test tells it to say, and keeps what it hears.
import { on, once } from "node:events";

import { WebSocketServer } from "./packages.mjs";

/** One connection of a page. */
class Peer {
    #socket;
    #frames;
    #messages = [];
    /** Whether it gives echoes back by itself. */
    answersEchoes = true;
    /** Bytes of the largest frame that came. */
    largest = 0;
    constructor(socket, request) {
        this.#socket = socket;
        this.offered = request.headers["sec-websocket-protocol"].split(/, */);
        this.closed = once(socket, "close").then(([code]) => code);
        this.#frames = on(socket, "message");
        socket.on("message", (data, isBinary) => {
            this.largest = Math.max(this.largest, data.length);
            if (isBinary || !this.answersEchoes) return;
            for (const message of [JSON.parse(data)].flat()) {
                if (message.t === "echo") this.control(message);
            }
        });
    }
    /** The next message of this kind; others before it are passed over. A block frame of the page's
     * is of the kind "bytes". */
    async next(t) {
        for (;;) {
            const message = this.#messages.shift();
            if (message?.t === t) return message;
            if (message) continue;
            const [data, isBinary] = (await this.#frames.next()).value;
            this.#messages = isBinary ? [{ t: "bytes", data }] : [JSON.parse(data)].flat();
        }
    }
    /** All messages up to one of this kind. */
    async upTo(t) {
        const all = [];
        do {
            if (this.#messages.length === 0) {
                this.#messages = [JSON.parse((await this.#frames.next()).value[0])].flat();
            }
            all.push(this.#messages.shift());
        } while (all.at(-1).t !== t);
        return all;
    }
    /** Answers the hello, and returns it. */
    async welcome(members = {}) {
        const hello = await this.next("hello");
        const limits = { message: 4096, ackBytes: 1e6, ackMilliseconds: 1e6 };
        this.control({
            t: "hello",
            version: 1,
            server: "scripted",
            view: "v1",
            kind: "first",
            next: 1,
            blockChannels: [],
            subscribed: hello.subscribe,
            refused: [],
            configuration: {},
            ...members,
            limits: { ...limits, ...members.limits },
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
    /** Whether an upgrade that offers these subprotocols is answered with 403. */
    refuses = () => false;
    static async start() {
        const gateway = new ScriptedGateway();
        gateway.sockets = new WebSocketServer({
            host: "127.0.0.1",
            port: 0,
            verifyClient: ({ req }, done) =>
                done(!gateway.refuses(req.headers["sec-websocket-protocol"].split(/, */)), 403),
        });
        const { sockets } = gateway;
        gateway.#peers = on(sockets, "peer");
        sockets.on("connection", (socket, request) =>
            sockets.emit("peer", new Peer(socket, request)),
        );
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
