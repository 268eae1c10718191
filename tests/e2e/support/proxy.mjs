// A network between a browser and a program that can be cut, delayed and stalled: a SOCKS proxy,
// so that the browser uses the program's own address.
import { once } from "node:events";
import { connect, createServer } from "node:net";

const GREETING_ACCEPTED = Buffer.from([5, 0]);
const CONNECTED = Buffer.from([5, 0, 0, 1, 0, 0, 0, 0, 0, 0]);
const PORT_SIZE = 2; // at the end of a request

export class Proxy {
    #sockets = new Set();
    #isCut = false;
    #isStalled = false;
    /** Milliseconds by which each piece of data is late. */
    delay = 0;

    static async start() {
        const proxy = new Proxy();
        // A browser may go before it has said what it wants.
        const end = (socket) => () => socket.destroy();
        proxy.server = createServer((socket) => proxy.#accept(socket).catch(end(socket)));
        proxy.server.listen(0, "127.0.0.1");
        await once(proxy.server, "listening");
        return proxy;
    }
    /** For a browser context. */
    get settings() {
        const { port } = this.server.address();
        return { server: `socks5://127.0.0.1:${port}`, bypass: "<-loopback>" };
    }
    /** Ends all connections, and any new one until `mend`. */
    cut() {
        this.#isCut = true;
        for (const socket of this.#sockets) socket.destroy();
    }
    /** Lets nothing through any more, and says nothing of it. */
    stall() {
        this.#isStalled = true;
        for (const socket of this.#sockets) socket.pause();
    }
    /** Lets new connections live. Those from before stay as they are. */
    mend() {
        this.#isCut = this.#isStalled = false;
    }
    stop() {
        this.cut();
        this.server.close();
    }
    async #accept(socket) {
        socket.on("error", () => {});
        if (this.#isCut) return socket.destroy();
        await once(socket, "data");
        socket.write(GREETING_ACCEPTED);
        const [request] = await once(socket, "data");
        socket.pause();
        const target = connect(request.readUInt16BE(request.length - PORT_SIZE), "127.0.0.1");
        target.on("error", () => {});
        socket.write(CONNECTED);
        this.#forward(socket, target);
        return this.#forward(target, socket);
    }
    #forward(from, to) {
        this.#sockets.add(from);
        from.on("data", (data) => setTimeout(() => to.write(data), this.delay));
        from.on("close", () => this.#sockets.delete(from) && to.destroy());
        if (!this.#isStalled) from.resume();
    }
}
