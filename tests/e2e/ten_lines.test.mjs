// The README's ten lines, built against the installed package, draw in a browser.
import assert from "node:assert/strict";
import { test } from "node:test";

import { assertClean } from "./support/page.mjs";
import { pictures } from "./support/pictures.mjs";
import { Program } from "./support/program.mjs";
import { shownValues } from "./support/scene.mjs";
import { Stage } from "./support/stage.mjs";

const stage = new Stage();

test("Ten lines draw a curve where it is", async () => {
    const env = { ...process.env, DISPLAY: "", WAYLAND_DISPLAY: "" };
    const program = await Program.run(process.env.KIROWEB_TEN_LINES, [], env);
    stage.defer(() => program.kill());
    const page = await stage.page();
    await page.goto(program.link);
    await page.waitForFunction(() => globalThis.kirowebPage?.statistics?.outcomes.painted >= 200);
    const rows = (await shownValues(page)).trimEnd().split("\r\n").slice(1);
    assert.ok(rows.length >= 190, `${rows.length} values`);
    const [, first] = rows[0].split(",").map(Number);
    rows.forEach((row, i) => {
        const [, x, y] = row.split(",").map(Number);
        const wanted = Math.exp(-0.1 * x) * Math.sin(5 * x);
        assert.ok(Math.abs(x - first - i * 0.01) + Math.abs(y - wanted) < 1e-4, row);
    });
    const [picture] = await pictures(page);
    assert.ok([...picture.all()].length > rows.length, "a curve is seen");
    await assertClean(page);
    program.process.kill("SIGINT");
    assert.equal(await program.exited, 0);
});
