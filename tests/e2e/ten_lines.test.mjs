// The README's ten lines, built against the installed package, draw in a browser.
import assert from "node:assert/strict";
import { test } from "node:test";

import { assertClean } from "./support/page.mjs";
import { pictures, untilSettled } from "./support/pictures.mjs";
import { Program } from "./support/program.mjs";
import { masksOf } from "./support/shapes.mjs";
import { Stage } from "./support/stage.mjs";

const stage = new Stage();

test("Ten lines draw a curve where it is", async () => {
    const env = { ...process.env, DISPLAY: "", WAYLAND_DISPLAY: "" };
    const program = await Program.run(process.env.KIROWEB_TEN_LINES, [], env);
    stage.defer(() => program.kill());
    const page = await stage.page();
    await page.goto(program.link);
    await page.waitForFunction(() => globalThis.kirowebPage?.statistics?.outcomes.painted >= 200);
    await page.keyboard.press(" ");
    await page.locator('#status[data-state="paused"]').waitFor();
    await untilSettled(page);
    const [picture] = await pictures(page);
    const [, end] = picture.shown.x;
    assert.ok(end > 1.9, `${end}`);
    const x = Array.from({ length: Math.round(end / 0.01) + 1 }, (_, i) => i * 0.01);
    const y = x.map((t) => Math.exp(-0.1 * t) * Math.sin(5 * t));
    const data = { kind: "line", x, y };
    const { allowed, required } = await masksOf(page, data, {
        ...picture,
        place: picture.placer(),
    });
    assert.ok(required.includes(1));
    assert.deepEqual(picture.missing(required), []);
    const isAllowed = ([column, row]) => allowed[row * picture.width + column];
    assert.ok([...picture.all()].every(isAllowed));
    await assertClean(page);
    program.process.kill("SIGINT");
    assert.equal(await program.exited, 0);
});
