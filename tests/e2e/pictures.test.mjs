// What the page draws, pixel by pixel against what the engine says of its data.
import assert from "node:assert/strict";
import { test } from "node:test";

import { contrast } from "../client/support/vision.mjs";
import { channels, isNear, pictures, shot, untilSettled } from "./support/pictures.mjs";
import { masksOf } from "./support/shapes.mjs";
import { Stage } from "./support/stage.mjs";

const stage = new Stage();
const GAP_COLOR = [0xf0, 0xa0, 0xd8];

/** No data without pixels, no pixel without data, and all of them of the series' colour. */
async function checkSeries(page, picture, data) {
    const { width, height, description } = picture;
    const place = picture.placer(data.y2 ? "y2" : "y");
    const { allowed, required } = await masksOf(page, data, { ...picture, place });
    const color = channels(description.series[0].color);
    const isColored = Boolean(data.limits);
    // What keeps a text apart from what is below has the ground's colour.
    const isText = data.kind === "text";
    const drawn = [...picture.all()];
    const faults = {
        missing: picture.missing(required),
        surplus: drawn.filter(([column, row]) => !allowed[row * width + column]),
        colored: drawn.filter((at) => !isColored && !isText && !isNear(color, picture.at(...at))),
    };
    const where = `${description.title} at ${width} x ${height}`;
    assert.ok(required.includes(1), `${where}: nothing to be seen`);
    assert.ok(isColored || picture.has(color), `${where}: nothing in ${color}`);
    for (const [what, places] of Object.entries(faults)) {
        const some = places.slice(0, 5).join("; ");
        assert.equal(places.length, 0, `${where}: ${places.length} ${what}: ${some}`);
    }
    if (isColored) checkColors(picture, data, place);
}

const gray = (value, [low, high]) =>
    Number.isNaN(value)
        ? GAP_COLOR
        : Array(3).fill(Math.round(((value - low) / (high - low)) * 255));

/** The middle of each cell, or point, has the colour of its value. */
function checkColors(picture, { x, y, z, value, rows, limits }, place) {
    const columns = z ? z.length / rows[0] : 0;
    const within = ([low, high], share) => low + (high - low) * share;
    const middleOf = (i) =>
        z
            ? [
                  within(x, ((i % columns) + 0.5) / columns),
                  within(y, (Math.floor(i / columns) + 0.5) / rows[0]),
              ]
            : [x[i], y[i]];
    (z ?? value).forEach((one, i) => {
        const wanted = gray(one, limits);
        const found = picture.at(...place(...middleOf(i)).map(Math.floor));
        assert.ok(isNear(wanted, found), `${wanted}: ${found}`);
    });
}

/** At each of its texts the colour bar has the colour of that value. */
async function checkColorBar(page, limits) {
    const bar = page.locator(".color-bar .ramp");
    const ramp = await shot(bar);
    const { y: top, height } = await bar.boundingBox();
    const texts = await page.locator(".color-bar .ticks span").all();
    assert.ok(texts.length >= 2);
    for (const text of texts) {
        const { y, height: tall } = await text.boundingBox();
        const row = Math.floor(((y + tall / 2 - top) / height) * ramp.height);
        const found = ramp.at(ramp.width >> 1, Math.min(Math.max(2, row), ramp.height - 3));
        const value = await text.textContent();
        assert.ok(isNear(gray(Number(value), limits), found), `${value}: ${found}`);
    }
}

/** Texts of ticks are different ones, side by side, and whole. */
function checkTicks(picture) {
    const { title, y2 } = picture.description;
    for (const which of y2 ? ["x", "y", "y2"] : ["x", "y"]) {
        const all = picture.ticks[which].ticks.map(({ text }) => text);
        const texts = all.filter((text) => text !== "");
        const where = `${title} ${which}: ${texts}`;
        const isSame = texts.some((text, i) => text === texts[i - 1]);
        assert.ok(texts.length >= 2 && !isSame, where);
        assert.deepEqual(picture.texts(which), { count: texts.length, isClipped: false }, where);
    }
}

const RATIOS = [1, 2];
const SCHEMES = ["light", "dark"];
for (const deviceScaleFactor of RATIOS) {
    for (const colorScheme of SCHEMES) {
        test(`Series are drawn where their data are, ${deviceScaleFactor} x, ${colorScheme}`, async () => {
            const viewport = { width: 1600, height: 1100 };
            const page = await stage.page({ viewport, deviceScaleFactor, colorScheme });
            for (const name of ["kinds", "cases"]) {
                const scene = await stage.scene(name);
                await page.goto(scene.link);
                // Axes that got their final room with the first picture are there in the second.
                for (const frame of [0, 1]) {
                    scene.tell("draw");
                    assert.equal(await scene.answer(/^frame/), `frame ${frame} painted`);
                    await untilSettled(page);
                }
                const data = new Map(scene.told.map((one) => [one.axes, one]));
                for (const picture of await pictures(page)) {
                    const told = data.get(picture.description.id);
                    await checkSeries(page, picture, told);
                    checkTicks(picture);
                    if (told.limits) await checkColorBar(page, told.limits);
                    data.delete(picture.description.id);
                }
                assert.equal(data.size, 0);
                assert.deepEqual(page.complaints, []);
                await page.goto("about:blank");
            }
        });
    }
}

for (const [colorScheme, deviceScaleFactor] of [
    ["light", 1],
    ["dark", 2],
]) {
    test(`On a phone everything can be read, ${colorScheme}, ${deviceScaleFactor} x`, async () => {
        const viewport = { width: 360, height: 740 };
        const page = await stage.page({ viewport, colorScheme, deviceScaleFactor });
        const scene = await stage.scene("labels");
        await page.goto(scene.link);
        scene.tell("draw");
        await scene.answer(/^frame 0 painted/);
        const seen = await page.evaluate(() => {
            const figure = document.querySelector(".figure");
            const channelsOf = (color) => color.match(/[\d.]+/g).map(Number);
            const ground = channelsOf(getComputedStyle(figure).backgroundColor);
            const texts = [...figure.querySelectorAll("h2, h3, .label span, .legend .name")];
            const room = document.documentElement.clientWidth;
            return {
                ground,
                texts: texts.map((element) => {
                    const { width, left, right, bottom } = element.getBoundingClientRect();
                    const frame = element.parentElement.getBoundingClientRect();
                    const isAcross =
                        left >= Math.max(0, frame.left - 1) && right <= frame.right + 1;
                    const isWhole =
                        width > 0 && isAcross && right <= room && bottom <= frame.bottom + 1;
                    const color = channelsOf(getComputedStyle(element).color);
                    return { text: element.textContent, isWhole, color };
                }),
            };
        });
        const whole = seen.texts.filter(({ isWhole }) => isWhole).map(({ text }) => text);
        for (const unit of ["(kg m s⁻²)", "(mPa)", "series 0", "series 7"]) {
            assert.ok(whole.includes(unit), `${unit} of ${whole}`);
        }
        for (const { text, color } of seen.texts) {
            assert.ok(contrast(color, seen.ground) >= 4.5, `${text}: ${color}`);
        }
    });
}
