// What somebody does at the page, while an engine draws.
import assert from "node:assert/strict";
import { test } from "node:test";

import { assertClean } from "./support/page.mjs";
import { Stage } from "./support/stage.mjs";

const stage = new Stage();

async function start() {
    const scene = await stage.scene("live");
    const page = await stage.page();
    await page.goto(scene.link);
    await scene.draw("step 60");
    return { scene, page };
}

test("What is done reaches the engine's callbacks", async () => {
    const { scene, page } = await start();
    const chart = page.locator(".chart").first();
    // Step 59 is at 14.75, 59; the lower axes go from 4.75 to 14.75 and from 0 to 100.
    const area = await page.locator(".u-over").nth(1).boundingBox();
    const at = (x, y) => [
        area.x + ((x - 4.75) / 10) * area.width,
        area.y + (1 - y / 100) * area.height,
    ];
    const actions = [
        [() => page.mouse.click(...at(10, 40)), /^lower 40 1$/],
        [() => page.mouse.click(...at(6, 90)), /^lower 0 0$/],
        [() => chart.press("w"), /^key w [1-9]/],
        [() => page.getByRole("button", { name: "Zoom in" }).first().press("e"), /^key e 0$/],
        [() => chart.press("+"), /^limits (?!4.75 )\d.* -0\.8 0\.8 \d+ \d+$/],
        [() => chart.press("0"), /^limits 4\.75 14\.75 -1 1 \d+ \d+ home$/],
        [() => page.getByRole("button", { name: "Press" }).click(), /^button$/],
        [() => page.getByRole("slider", { name: "Gain" }).press("ArrowRight"), /^slider 5\.5$/],
        [() => page.getByRole("combobox").selectOption("third"), /^choice 2$/],
    ];
    for (const [action, line] of actions) {
        await action();
        await scene.line(line);
    }
    const count = page.getByRole("spinbutton", { name: "Count" });
    // What is out of range is not sent.
    for (const value of ["12", "7"]) {
        await count.fill(value);
        await count.press("Enter");
    }
    await scene.line(/^number/);
    const numbers = scene.lines.filter((line) => line.startsWith("number"));
    assert.deepEqual(numbers, ["number 7"]);
    await assertClean(page);
    const other = await stage.page();
    await other.goto(scene.link);
    await scene.draw("step 1");
    await page.getByRole("slider", { name: "Gain" }).press("ArrowRight");
    await scene.line(/^slider 6$/);
    await scene.draw("step 1");
    await other.waitForFunction(() => document.querySelector("[type=range]").value === "6");
});

test("Everything is within reach of the tab key, and named", async () => {
    const { page } = await start();
    const reached = [];
    for (;;) {
        await page.keyboard.press("Tab");
        const name = await page.evaluate(() => {
            const { activeElement: one } = document;
            if (one === document.body) return null;
            const label = one.ariaLabel ?? one.labels?.[0]?.textContent ?? one.textContent;
            return label.trim().split(". ")[0];
        });
        if (name === null || (reached.length > 1 && name === reached[0])) break;
        reached.push(name);
    }
    const wanted = "Pause,Record,Keys,Zoom in,Press,Gain,Count,Kind,wave,level,upper,lower";
    for (const name of wanted.split(",")) {
        const isThere = reached.some((one) => one.includes(name));
        assert.ok(isThere, `${name} of ${reached}`);
    }
    assert.ok(!reached.includes(""));
});
