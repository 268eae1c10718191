// An engine that draws what a test tells it to, to the page as it is built from its modules.
import { once } from "node:events";
import { readFile } from "node:fs/promises";
import { createServer } from "node:http";

import "../../../client/build.mjs";
import { ScriptedGateway } from "../../client/support/scripted_gateway.mjs";

const DIST = new URL("../../../client/dist/", import.meta.url);
const TYPES = { html: "text/html", js: "text/javascript", css: "text/css", svg: "image/svg+xml" };
const POLICY =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data: blob:; " +
    "font-src 'self'; connect-src 'self'; base-uri 'none'; form-action 'none'";
const CONFIGURATION = {
    vocabulary: "kirofigures/1",
    commands: "/commands",
    blocks: "/blocks",
    ready: "/ready",
    newView: "/view",
    events: "/events",
    title: "Laboratory",
};

async function serve(request, response) {
    const name = request.url === "/" ? "index.html" : request.url.slice(1);
    const body = await readFile(new URL(name, DIST)).catch(() => null);
    const type = TYPES[name.split(".").pop()];
    response.writeHead(body ? 200 : 404, {
        "Content-Type": type ?? "text/plain",
        "Content-Security-Policy": POLICY,
    });
    response.end(body);
}

/** One page's engine. */
export class Engine {
    #number = 1;
    #sequence = 0;
    #block = 2;
    #frame = 0;
    #texts = [];
    #heard = [];
    /** Whether it wants keys. */
    listens = false;
    /** Opens a page, and ends when that may be drawn to. */
    static async open(stage, context) {
        const engine = new Engine();
        const server = createServer(serve);
        engine.gateway = await ScriptedGateway.start(server);
        stage.defer(() => {
            engine.gateway.stop();
            server.close();
        });
        engine.page = await stage.page(context);
        await engine.page.goto(`http://127.0.0.1:${server.address().port}/#token=t`);
        engine.peer = await engine.gateway.peer();
        const subscribed = [CONFIGURATION.commands, CONFIGURATION.blocks];
        await engine.peer.welcome({
            configuration: CONFIGURATION,
            subscribed,
            limits: { message: 65536 },
        });
        await engine.#until(({ channel }) => channel === CONFIGURATION.ready);
        return engine;
    }
    say(cmd, members) {
        this.#texts.push(JSON.stringify({ seq: ++this.#sequence, ...members, cmd }));
    }
    create(id, type, parent, properties) {
        this.say("create", { id, type, ...(parent && { parent }), ...properties });
    }
    /** Columns as arrays of numbers; they travel as 64-bit floats. */
    data(id, columns, first = 0) {
        const name = `${(this.#block += 2)} 0`;
        const values = Float64Array.from(Object.values(columns).flat());
        const data = { [name]: Buffer.from(values.buffer).toString("base64") };
        this.#texts.push(JSON.stringify({ cmd: "binarydata", data }));
        const count = Object.values(columns)[0].length;
        const named = Object.keys(columns).map((column) => [column, "f64"]);
        this.say("data", { id, data: name, first, count, columns: named });
    }
    /** A frame of what `draw` says; what became of it. */
    async frame(draw, whole = false) {
        const frame = this.#frame++;
        const said = this.#texts.splice(0);
        this.say("beginFrame", { frame, attempt: 1, whole, keys: this.listens });
        this.#texts.push(...said);
        draw();
        this.#texts.push(JSON.stringify({ cmd: "sendACT", ACT: frame, returnChannel: "/back" }));
        this.peer.batch(
            this.#number,
            this.#texts.map((text) => [CONFIGURATION.commands, text]),
        );
        this.#number += this.#texts.splice(0).length;
        const { outcome } = await this.event("frame");
        await this.#until(({ channel }) => channel === "/back");
        return outcome;
    }
    /** The next event of this kind that is as wanted, past or future; each once. */
    async event(kind, isAsWanted = () => true) {
        const isWanted = ({ channel, text }) => {
            const event = channel === CONFIGURATION.events && JSON.parse(text);
            return event.event === kind && isAsWanted(event);
        };
        return JSON.parse((await this.#until(isWanted)).text);
    }
    async #until(isWanted) {
        for (;;) {
            const at = this.#heard.findIndex(isWanted);
            if (at >= 0) return this.#heard.splice(at, 1)[0];
            this.#heard.push(await this.peer.next("publish"));
        }
    }
    /** Ends when axes show these limits, to a hundredth of them. */
    async untilShown(id, which, wanted) {
        const isShown = ([number, name, [low, high]]) => {
            const figures = [...kirowebPage.figures.values()];
            const { shown } = figures.map((figure) => figure.axes.get(number)).find(Boolean);
            const [from, to] = shown[name];
            return Math.max(Math.abs(from - low), Math.abs(to - high)) < (high - low) / 100;
        };
        await this.page.waitForFunction(isShown, [id, which, wanted], { timeout: 10_000 });
    }
    /** The places of axes' plotting areas, as CSS pixels of the window. */
    area(index) {
        return this.page.locator(".u-over").nth(index).boundingBox();
    }
    async stop() {
        this.gateway.stop();
        await once(this.gateway.sockets, "close");
    }
}
