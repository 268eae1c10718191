// What the monitor's page shows.
import assert from "node:assert/strict";
import { test } from "node:test";

import { readCoast, readEcg, readQuakes } from "./support/data.mjs";
import { assertClean, outcomesOf, pictureOf } from "./support/page.mjs";
import { Stage } from "./support/stage.mjs";

const stage = new Stage();

/** Has so many frames drawn, as fast as the page can, and checks what is shown then. */
async function draw(page, frames) {
    const monitor = await stage.monitor("--speed", "max", "--frames", String(frames));
    await page.goto(monitor.link);
    await monitor.end({ frames, drawn: frames, left: 0, views: 0, returns: 0 }, { asked: false });
    // The last token went back after its frame was painted.
    checkEcg(await pictureOf(page, "ecg.axes"), frames);
    checkMap(await pictureOf(page, "quakes.axes"), frames % 300);
    assert.deepEqual(await outcomesOf(page), { painted: frames, hidden: 0, failed: 0 });
    assert.deepEqual(await page.evaluate(() => kirowebPage.errors), []);
}

const isGreen = (r, g, b, a) => a > 128 && g > 1.5 * r && g > 1.3 * b;
const isRed = (r, g, b) => r > 1.25 * g && r > 1.25 * b;
const isDrawn = (r, g, b, a) => a > 40;

/** How far the middle of a pixel may lie from what it shows. */
const REACH = 2.5;

function checkEcg(picture, frames) {
    const end = frames * 12;
    const limits = { x: [end / 360 - 5, end / 360], y: [-4, 4] };
    const millivolts = readEcg();
    const lowest = [];
    const highest = [];
    for (let i = Math.max(0, end - 1800); i < end; ++i) {
        const [x, y] = picture.place([i / 360, millivolts[i]], limits);
        assert.ok(picture.hasNear([x, y], REACH, isGreen), `no line at sample ${i}`);
        for (let column = Math.floor(x - REACH); column <= x + REACH; ++column) {
            lowest[column] = Math.max(lowest[column] ?? y, y);
            highest[column] = Math.min(highest[column] ?? y, y);
        }
    }
    for (const [x, y] of picture.all(isGreen)) {
        const column = Math.floor(x);
        const within = y <= lowest[column] + REACH && y >= highest[column] - REACH;
        assert.ok(within, `a line at ${x}, ${y} that is not in the data`);
    }
}

function checkMap(picture, frames) {
    const limits = { x: [-180, 180], y: [-90, 90] };
    const quakes = readQuakes(frames).map((quake) => [...picture.place(quake, limits), quake[2]]);
    // The captions, in the lower left, cover what is below them.
    const free = ([x, y]) =>
        x > picture.left + picture.across / 2 || y < picture.top + picture.down * 0.8;
    for (const place of quakes.filter(free)) {
        assert.ok(picture.hasNear(place, REACH, isRed), `no point at ${place}`);
    }
    for (const [x, y] of picture.all(isRed)) {
        const near = quakes.some(
            ([qx, qy, magnitude]) => Math.hypot(x - qx, y - qy) < 4 + magnitude,
        );
        assert.ok(near, `a point at ${x}, ${y} that is not in the data`);
    }
    const coast = readCoast()
        .map((vertex) => picture.place(vertex, limits))
        .filter(free);
    const missing = coast.filter((place) => !picture.hasNear(place, 1, isDrawn));
    assert.deepEqual(missing, []);
}

test("A thousand flushes show the data, from a backlog that came before the page", async () => {
    const page = await stage.page({ colorScheme: "light" });
    await draw(page, 1000);
    assert.deepEqual(await page.locator("h2").allTextContents(), [
        "Electrocardiogram – one lead, 360 Hz",
        "Earthquakes, 31 January – 7 February 2018",
    ]);
    assert.equal(new URL(page.url()).hash, "");
});

test("Blocks that the page gives back come again as text", async () => {
    const page = await stage.page({ colorScheme: "light" });
    let refused = 0;
    await page.routeWebSocket(/kiroweb$/, (toPage) => {
        const toServer = toPage.connectToServer();
        toServer.onMessage((message) => {
            if (typeof message === "string") return toPage.send(message);
            ++refused;
            const transfer = message.readUInt32LE(4);
            const number = Number(message.readBigUInt64LE(8));
            toServer.send(
                JSON.stringify({ t: "block", transfer, ok: false, reason: "by the test" }),
            );
            return toPage.send(JSON.stringify({ t: "withdrawn", transfer, number }));
        });
    });
    await draw(page, 60);
    assert.ok(refused >= 60, `${refused} refused`);
});

test("A place picked by mouse or keyboard is named in the next frame", async () => {
    const { page } = await stage.start({ context: { colorScheme: "light" } });
    const map = page.locator('[data-name="quakes.axes"]');
    /** What is named once it is not `before`. */
    const picked = async (before) => {
        const handle = await page.waitForFunction((old) => {
            const { visible, text } = kirowebPage.scene.named("quakes.picked");
            return visible && text !== old && text;
        }, before);
        return handle.jsonValue();
    };
    await map.click();
    const clicked = await picked();
    assert.match(clicked, /^M \d/);
    await map.focus();
    for (let i = 0; i < 20; ++i) await page.keyboard.press("ArrowLeft");
    await page.keyboard.press("Enter");
    await picked(clicked);
    await assertClean(page);
});
