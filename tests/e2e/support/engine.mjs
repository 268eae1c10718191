// An engine that draws what a test tells it to, to the page as it is built from its modules.
import { once } from "node:events";
import { readFile } from "node:fs/promises";
import { createServer } from "node:http";

import "../../../client/build.mjs";
import { CONFIGURATION, Engine as Talking } from "../../client/support/engine.mjs";
import { ScriptedGateway } from "../../client/support/scripted_gateway.mjs";

const DIST = new URL("../../../client/dist/", import.meta.url);
const TYPES = { html: "text/html", js: "text/javascript", css: "text/css", svg: "image/svg+xml" };
const POLICY =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data: blob:; " +
    "font-src 'self'; connect-src 'self'; base-uri 'none'; form-action 'none'";
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
export class Engine extends Talking {
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
        const { commands, blocks, ready } = CONFIGURATION;
        await engine.meet(engine.gateway, { subscribed: [commands, blocks] });
        await engine.until(({ channel }) => channel === ready);
        return engine;
    }
    /** A frame of what `draw` says; what became of it. */
    async frame(draw, whole) {
        this.draw(draw, whole);
        const { outcome } = await this.event("frame");
        await this.until(({ channel }) => channel === "/back");
        return outcome;
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
