// What somebody does at the page, while an engine draws.
import assert from "node:assert/strict";
import { readFile } from "node:fs/promises";
import { test } from "node:test";

import { Reader } from "../../client/page/recording/reader.mjs";
import { assertClean } from "./support/page.mjs";
import { assertValues, liveValues, shownValues } from "./support/scene.mjs";
import { Stage } from "./support/stage.mjs";

const stage = new Stage();

async function start() {
    const scene = await stage.scene("live");
    const page = await stage.page();
    await page.goto(scene.link);
    await scene.draw("step 60");
    return { scene, page };
}

/** Ends when the first axes show such limits of x; these. */
async function untilShown(page, isWanted, given) {
    const shown = await page.waitForFunction(
        ([name, value]) => {
            const [figure] = kirowebPage.figures.values();
            const [axes] = figure.axes.values();
            const { x } = axes.shown;
            const [low, high] = x;
            const holds = {
                any: true,
                beyond: high > value,
                upTo: high === value,
                narrower: high - low < value,
            };
            return holds[name] && x;
        },
        [isWanted, given],
    );
    return shown.jsonValue();
}

test("What is done reaches the engine's callbacks", async () => {
    const { scene, page } = await start();
    const chart = page.locator(".chart").first();
    const lower = page.locator(".chart").nth(1);
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
        [() => chart.blur().then(() => page.keyboard.press("e")), /^key e 0$/],
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
    assert.deepEqual(
        scene.lines.filter((line) => line.startsWith("number")),
        ["number 7"],
    );
    await lower.focus();
    await assertClean(page);
});

test("A view holds while data stream, and follows them again when asked to", async () => {
    const { scene, page } = await start();
    await scene.stream();
    await untilShown(page, "beyond", 15);
    const chart = page.locator(".chart").first();
    await chart.press("+");
    const held = await untilShown(page, "narrower", 9);
    // Many frames later.
    await page.waitForFunction(
        (before) => kirowebPage.outcomes.painted > before + 30,
        await page.evaluate(() => kirowebPage.outcomes.painted),
    );
    assert.deepEqual(await untilShown(page, "any"), held);
    await chart.press("0");
    const home = await untilShown(page, "beyond", held[1] + 5);
    assert.ok(Math.abs(home[1] - home[0] - 10) < 1e-9, `${home}`);
    await assertClean(page);
});

test("A page that is paused says so to the engine, takes the data in, and catches up", async () => {
    const { scene, page } = await start();
    await page.keyboard.press(" ");
    await page.getByRole("button", { name: "Go on" }).waitFor();
    await scene.draw("step 5", "paused");
    assertValues(await shownValues(page), liveValues(60));
    await scene.draw("step 5", "paused");
    await page.getByRole("button", { name: "Go on" }).click();
    await untilShown(page, "upTo", 69 * 0.25);
    assertValues(await shownValues(page), liveValues(70));
    await scene.draw("step 1");
});

test("What is seen is saved as CSV, and shown as a table", async () => {
    const { page } = await start();
    await page.locator(".chart").first().press("s");
    await page.getByRole("radio", { name: "CSV" }).check();
    const download = page.waitForEvent("download");
    await page.locator(".save button").click();
    assertValues(await readFile(await (await download).path(), "utf8"), liveValues(60));
    await page.locator(".chart").first().press("t");
    const rows = page.locator("dialog tbody tr");
    await rows.last().waitFor({ state: "attached" });
    assert.equal(await rows.count(), 2 * 41);
    assert.match(await rows.last().textContent(), /^level14\.750\.5$/);
});

test("What the page gets is recorded, and downloaded", async () => {
    const { scene, page } = await start();
    const button = page.getByRole("button", { name: "Record" });
    await page.keyboard.press("r");
    await button.getByText(/^Record \d:\d\d · [\d.]+ KiB$/).waitFor();
    assert.equal(await button.getAttribute("aria-pressed"), "true");
    for (let i = 0; i < 3; ++i) await scene.draw("step 1");
    const download = page.waitForEvent("download");
    await button.click();
    const file = await download;
    assert.match(file.suggestedFilename(), /^scenes-[\d-]{17}\.mcap$/);
    await page.locator('.record[aria-pressed="false"]').waitFor();
    const bytes = await readFile(await file.path());
    const reader = await Reader.open({
        size: bytes.length,
        read: async (offset, length) => bytes.subarray(offset, offset + length),
    });
    assert.equal(reader.damage, null);
    const messages = (await Promise.all(reader.chunks.map((chunk) => reader.read(chunk)))).flat();
    const of = (topic) => messages.filter(({ channel }) => channel === reader.find(topic));
    const read = (topic) => of(topic).map(({ data }) => JSON.parse(Buffer.from(data)));
    assert.ok(of("snapshots")[0].time < of("frames")[0].time);
    assert.equal(read("frames").length, 3);
    assert.deepEqual(
        read("tokens").map(({ frame, outcome }) => [frame, outcome]),
        read("frames").map(({ frame }) => [frame, "painted"]),
    );
    const [token] = read("tokens");
    assert.ok(token.serverSend > 0 && token.clientSend >= token.clientReceive);
    assert.equal(of("blocks").length, read("commands").filter(({ cmd }) => cmd === "data").length);
    assert.ok(of("blocks").length >= 3);
    await assertClean(page);
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
    const wanted = [
        "Pause",
        "Record",
        "Keys",
        "Zoom in",
        "Press",
        /^Gain/,
        "Count",
        /^Kind/,
        "wave",
        "level",
    ];
    for (const name of [...wanted, "upper", "lower"]) {
        const isThere = reached.some((one) => (name.test ? name.test(one) : one.includes(name)));
        assert.ok(isThere, `${name} of ${reached}`);
    }
    assert.ok(!reached.includes(""), String(reached));
});
