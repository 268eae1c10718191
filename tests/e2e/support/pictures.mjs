// What a page shows of axes, read from its canvases.
import { createHash } from "node:crypto";

/** Each picture has the size of its axes. A canvas that is given pictures does not say theirs. */
export function untilSettled(page) {
    return page.waitForFunction(async () => {
        const views = [...kirowebPage.figures.values()].flatMap(({ axes }) => [...axes.values()]);
        const isSettled = async ({ canvas, size: { width, height, ratio } }) => {
            const sizes = [width, height].map((one) => Math.round(one * ratio));
            const shown = await createImageBitmap(canvas);
            return String([shown.width, shown.height]) === String(sizes);
        };
        return (await Promise.all(views.map(isSettled))).every(Boolean);
    });
}

/** In a page: the pixels of a picture, four bytes each, as a text. */
async function pixelsOf(image, width = image.width, height = image.height) {
    const copy = new OffscreenCanvas(width, height).getContext("2d");
    copy.drawImage(image, 0, 0);
    const reader = new FileReader();
    reader.readAsDataURL(new Blob([copy.getImageData(0, 0, width, height).data]));
    await new Promise((done) => (reader.onload = done));
    return { width, height, base64: reader.result.split(",")[1] };
}

/** All axes of the page: what is told of them, and the pixels of their series. */
export async function pictures(page) {
    await page.evaluate(`globalThis.pixelsOf = ${pixelsOf}`);
    const read = await page.evaluate(() => {
        const views = [...kirowebPage.figures.values()].flatMap(({ axes }) => [...axes.values()]);
        const all = views.map(async ({ canvas, size, description, shown, ticks, plot }) => {
            const sizes = [size.width, size.height].map((n) => Math.round(n * size.ratio));
            const { left, top, width: across, height: down } = plot.bbox;
            return {
                ...{ description, shown, ticks, unit: size.ratio },
                ...(await globalThis.pixelsOf(await createImageBitmap(canvas), ...sizes)),
                frame: await globalThis.pixelsOf(plot.ctx.canvas),
                area: { left, top, right: left + across, bottom: top + down },
            };
        });
        return Promise.all(all);
    });
    return read.map((members) => new AxesPicture(members));
}

/** The pixels of a PNG. */
export async function decoded(page, png) {
    await page.evaluate(`globalThis.pixelsOf = ${pixelsOf}`);
    const read = async (text) => {
        const bytes = Uint8Array.from(atob(text), (letter) => letter.charCodeAt(0));
        return globalThis.pixelsOf(await createImageBitmap(new Blob([bytes])));
    };
    return new Picture(await page.evaluate(read, png.toString("base64")));
}

/** What is seen of an element. */
export const shot = async (element) => decoded(element.page(), await element.screenshot());

/** Of all axes of the page: their limits, and what tells one picture of them from another. */
export async function digests(page) {
    const digestOf = ({ pixels }) => createHash("sha256").update(pixels).digest("hex");
    const all = await pictures(page);
    return all.map((one) => [JSON.stringify(one.shown), digestOf(one), digestOf(one.frame)]);
}

/** Red, green and blue of "#rrggbb". */
export const channels = (color) => [1, 3, 5].map((at) => parseInt(color.slice(at, at + 2), 16));
/** Whether a pixel has a colour. */
export const isNear = (color, pixel) => color.every((part, i) => Math.abs(part - pixel[i]) <= 12);

class Picture {
    constructor({ base64, ...members }) {
        Object.assign(this, members);
        this.pixels = Buffer.from(base64, "base64");
    }
    /** Red, green, blue and alpha. */
    at(column, row) {
        const at = (row * this.width + column) * 4;
        return [...this.pixels.subarray(at, at + 4)];
    }
    isDrawn(column, row) {
        const isInside = column >= 0 && row >= 0 && column < this.width && row < this.height;
        return isInside && this.pixels[(row * this.width + column) * 4 + 3] > 40;
    }
    /** All pixels that are drawn. */
    *all() {
        for (let row = 0; row < this.height; ++row) {
            for (let column = 0; column < this.width; ++column) {
                if (this.isDrawn(column, row)) yield [column, row];
            }
        }
    }
    /** Whether a pixel above that row has this colour. */
    has(color, rows = this.height) {
        for (const at of this.all()) {
            if (at[1] < rows && isNear(color, this.at(...at))) return true;
        }
        return false;
    }
}

class AxesPicture extends Picture {
    constructor(members) {
        super(members);
        this.frame = new Picture(members.frame);
    }
    /** Whether that pixel, or a neighbour, is drawn. */
    hasNear(column, row) {
        const near = [-1, 0, 1];
        return near.some((y) => near.some((x) => this.isDrawn(column + x, row + y)));
    }
    /** Pixels that have to be drawn, and are not. @param {Uint8Array} required */
    missing(required) {
        const places = [...required.keys()].filter((at) => required[at]);
        return places
            .map((at) => [at % this.width, Math.floor(at / this.width)])
            .filter((place) => !this.hasNear(...place));
    }
    /** Where values lie on the canvas. */
    placer(which = "y") {
        const { description, shown, width, height } = this;
        const fraction = (value, axis) => {
            const of = description[axis].scale === "log" ? Math.log10 : (number) => number;
            const [low, high] = shown[axis].map(of);
            return (of(value) - low) / (high - low);
        };
        return (x, y) => [fraction(x, "x") * width, (1 - fraction(y, which)) * height];
    }
    /** How many texts an axis has, told apart by room without ink, and whether one reaches an end of
     * what is drawn on. */
    texts(which) {
        const { frame, area, unit } = this;
        const isX = which === "x";
        const below = area.bottom + 7 * unit;
        const strips = {
            x: [below, below + 14 * unit],
            y: [0, area.left - 7 * unit],
            y2: [area.right + 7 * unit, frame.width],
        };
        const [from, to] = strips[which].map(Math.floor);
        const across = [...Array(to - from).keys()].map((i) => from + i);
        const isInk = (along, at) => frame.isDrawn(...(isX ? [along, at] : [at, along]));
        const length = isX ? frame.width : Math.floor(below);
        const inked = [...Array(length).keys()].filter((i) => across.some((at) => isInk(i, at)));
        const edges = [0, frame.width - 1].slice(which === "y2" ? 1 : 0, which === "y" ? 1 : 2);
        const isLast = (i) => edges.some((edge) => (isX ? i === edge : isInk(i, edge)));
        const room = (isX ? 8 : 4) * unit;
        return {
            count: inked.filter((at, i) => !(at - inked[i - 1] <= room)).length,
            isClipped: inked.some(isLast),
        };
    }
}
