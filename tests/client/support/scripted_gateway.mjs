// A gateway that says what a test tells it to say, and keeps what it hears.
import { on, once } from "node:events";

import { WebSocketServer } from "./packages.mjs";

const offeredIn = (request) => request.headers["sec-websocket-protocol"].split(/, */);

/** One connection of a page. */
class Peer {
    #frames;
    #messages = [];
    /** The kinds of messages that nobody waited for. */
    passed = [];
    /** Whether it gives echoes back by itself. */
    answersEchoes = true;
    /** Bytes of the largest frame that came. */
    largest = 0;
    constructor(socket, request, clocks) {
        this.socket = socket;
        this.offered = offeredIn(request);
        this.closed = once(socket, "close").then(([code]) => code);
        this.#frames = on(socket, "message");
        socket.on("message", (data, isBinary) => {
            this.largest = Math.max(this.largest, data.length);
            if (isBinary || !this.answersEchoes) return;
            for (const message of [JSON.parse(data)].flat()) {
                if (message.t === "echo") this.control({ ...message, ...(message.time && clocks) });
            }
        });
    }
    /** The next message of this kind; others before it are passed over. A block frame of the page's
     * is of the kind "bytes". */
    async next(t) {
        for (;;) {
            const message = this.#messages.shift();
            if (message?.t === t) return message;
            if (message && this.passed.push(message.t)) continue;
            const [data, isBinary] = (await this.#frames.next()).value;
            this.#messages = isBinary ? [{ t: "bytes", data }] : [JSON.parse(data)].flat();
        }
    }
    /** Answers the page's hello. */
    async welcome({ limits, ...members } = {}) {
        this.hello = await this.next("hello");
        this.control({
            t: "hello",
            view: "v1",
            kind: "first",
            next: 1,
            blockChannels: [],
            subscribed: this.hello.subscribe,
            refused: [],
            configuration: {},
            ...members,
            limits: { message: 4096, ackBytes: 1e6, ackMilliseconds: 1e6, ...limits },
        });
    }
    control(object) {
        this.socket.send(JSON.stringify(object));
    }
    /** Records of [channel, text], the first with this number. */
    batch(number, records) {
        this.socket.send(number + records.map(([c, text]) => `\x1e${c}\x1f${text}`).join(""));
    }
    /** A block or a piece of one. */
    piece(transfer, number, data, last = true, channel = 1) {
        const header = Buffer.alloc(16);
        header.writeUInt8(1);
        header.writeUInt8(last ? 1 : 0, 1);
        header.writeUInt16LE(channel, 2);
        header.writeUInt32LE(transfer, 4);
        header.writeUInt32LE(number, 8);
        this.socket.send(Buffer.concat([header, Buffer.from(data)]));
    }
}

/** Serves on a free port of the loopback interface. */
export class ScriptedGateway {
    /** Whether an upgrade that offers these subprotocols is answered with 403. */
    refuses = () => false;
    /** What its peers say of clocks when they are asked for the time. */
    clocks = {};
    /** With an HTTP server it serves what that serves, too. */
    static async start(server) {
        const gateway = new ScriptedGateway();
        const verifyClient = ({ req }, done) => done(!gateway.refuses(offeredIn(req)), 403);
        const where = server ? { server } : { host: "127.0.0.1", port: 0 };
        gateway.sockets = new WebSocketServer({ ...where, verifyClient });
        server?.listen(0, "127.0.0.1");
        gateway.connections = on(gateway.sockets, "peer");
        gateway.sockets.on("connection", (socket, request) =>
            gateway.sockets.emit("peer", new Peer(socket, request, gateway.clocks)),
        );
        await once(gateway.sockets, "listening");
        gateway.url = `ws://127.0.0.1:${gateway.sockets.address().port}/kiroweb`;
        return gateway;
    }
    /** The next connection of a page. */
    async peer() {
        return (await this.connections.next()).value[0];
    }
    stop() {
        for (const socket of this.sockets.clients) socket.terminate();
        this.sockets.close();
    }
}
