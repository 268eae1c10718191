// Points by WebGL are the points by stamps. The browser of tests has only a renderer in software,
// to which a test gives a GPU's name.
import assert from "node:assert/strict";
import { test } from "node:test";

import { only } from "./support/browser.mjs";
import { Engine } from "./support/engine.mjs";
import { assertClean } from "./support/page.mjs";
import { pictures } from "./support/pictures.mjs";
import { Stage } from "./support/stage.mjs";

const stage = new Stage(["--enable-unsafe-swiftshader"]);

/** The worker of a page, in which WebGL says that it is a GPU's, and counts what it draws. */
async function withGpu(page) {
    const [worker] = page.workers();
    await worker.evaluate(() => {
        const gpu = (globalThis.gpu = { drawn: 0, gl: null });
        const get = OffscreenCanvas.prototype.getContext;
        OffscreenCanvas.prototype.getContext = function (kind, how) {
            const gl = get.call(this, kind, how);
            if (kind !== "webgl2") return gl;
            const { UNMASKED_RENDERER_WEBGL } = gl.getExtension("WEBGL_debug_renderer_info");
            const asked = gl.getParameter.bind(gl);
            gl.getParameter = (what) => (what === UNMASKED_RENDERER_WEBGL ? "A GPU" : asked(what));
            const drawArrays = gl.drawArraysInstanced.bind(gl);
            gl.drawArraysInstanced = (...all) => {
                ++gpu.drawn;
                drawArrays(...all);
            };
            gpu.gl = gl;
            return gl;
        };
    });
    return worker;
}

const COUNT = 12000;
const columns = (shift) => ({
    x: Array.from({ length: COUNT }, (_, i) => (i === 9 ? NaN : 10.4 * ((i * 0.618034) % 1) - 0.2)),
    y: Array.from({ length: COUNT }, (_, i) => shift + Math.sin(i * 0.37) + (i % 11) * 0.002),
});

function draw(engine) {
    engine.data(3, columns(0));
    engine.data(4, { ...columns(3), size: columns(0).x.map((_, i) => (i * 7) % 25) });
    const value = columns(0).x.map((_, i) => i % 100);
    engine.data(5, { ...columns(6), size: value.map((one) => (one === 50 ? 80 : one / 8)), value });
}

const viewport = { width: 640, height: 480 };
const how = only("chromium", "a test can change what the page's worker sees");
for (const deviceScaleFactor of [1, 2]) {
    test(
        `What WebGL draws the stamps draw too, once its context is lost, ${deviceScaleFactor} x`,
        how,
        async () => {
            const engine = await Engine.open(stage, { viewport, deviceScaleFactor });
            const { page } = engine;
            const worker = await withGpu(page);
            const first = await engine.frame(() => {
                engine.create(1, "figure", 0, { title: "Points" });
                const y = { limits: [-1, 7] };
                engine.create(2, "axes", 1, { x: { limits: [0, 10] }, y });
                engine.create(3, "scatter", 2, { color: "#d0000080", size: 7 });
                engine.create(4, "scatter", 2, { color: "#0000d0" });
                engine.create(5, "scatter", 2, { colorMap: "turbo" });
                draw(engine);
            }, true);
            assert.equal(first, "painted");
            assert.equal(await engine.frame(() => draw(engine)), "painted");
            const drawn = () => worker.evaluate(() => globalThis.gpu.drawn);
            assert.ok((await drawn()) >= 3);
            const [byGpu] = await pictures(page);
            await worker.evaluate(async () => {
                const { gpu } = globalThis;
                gpu.drawn = 0;
                const { canvas } = gpu.gl;
                const lost = new Promise((done) =>
                    canvas.addEventListener("webglcontextlost", done),
                );
                gpu.gl.getExtension("WEBGL_lose_context").loseContext();
                await lost;
            });
            // Nothing new is drawn: what the GPU may have failed to is drawn again.
            await engine.frame(() => engine.say("set", { id: 1, title: "Lost" }));
            assert.equal(await drawn(), 0);
            const [byStamps] = await pictures(page);
            const differences = byGpu.pixels.map((part, i) => Math.abs(part - byStamps.pixels[i]));
            const mean = differences.reduce((sum, one) => sum + one, 0) / differences.length;
            const greatest = differences.reduce((most, one) => Math.max(most, one), 0);
            // A level of a stamp's opacity, here and there.
            assert.ok(mean < 0.1 && greatest <= 32, `mean ${mean}, greatest ${greatest}`);
            await assertClean(page);
        },
    );
}
