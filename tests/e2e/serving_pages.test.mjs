// The page of docs/library.md, whose program is built against the installed package, draws in a browser.
import assert from "node:assert/strict";
import { test } from "node:test";

import { Program } from "./support/program.mjs";
import { Stage } from "./support/stage.mjs";

const stage = new Stage();

test("A page of one's own draws what the engine publishes", async () => {
    const program = await Program.run(process.env.KIROWEB_PAGE, []);
    stage.defer(() => program.kill());
    const page = await stage.page();
    await page.goto(program.link);
    const line = page.locator("polyline[points]");
    await line.waitFor({ state: "attached", timeout: 20_000 });
    assert.equal(await line.getAttribute("points"), "0,10 2,9 4,1 6,6 8,3 10,5");
    assert.match(await page.title(), /^Figure 1: live/);
    // Without its modules it would have drawn nothing; what it lacks is an icon.
    assert.ok(page.complaints.length <= 1, page.complaints.join());
    program.tell("");
    assert.equal(await program.exited, 0);
});
