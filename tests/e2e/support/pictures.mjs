// What a page shows of axes, read from its canvases.

/** Each picture has the size of its axes. */
export function untilSettled(page) {
    return page.waitForFunction(() =>
        [...kirowebPage.figures.values()]
            .flatMap(({ axes }) => [...axes.values()])
            .every(({ canvas, size: { width, height, ratio } }) => {
                const sizes = [width, height].map((one) => Math.round(one * ratio));
                return String([canvas.width, canvas.height]) === String(sizes);
            }),
    );
}

/** All axes of the page: what is told of them, and the pixels of their series. */
export async function pictures(page) {
    const read = await page.evaluate(() => {
        const base64 = (data) => {
            let bytes = "";
            for (let i = 0; i < data.length; i += 8192) {
                bytes += String.fromCharCode(...data.subarray(i, i + 8192));
            }
            return btoa(bytes);
        };
        const views = [...kirowebPage.figures.values()].flatMap(({ axes }) => [...axes.values()]);
        return views.map(({ canvas, size, description, shown, ticks, plot }) => {
            const [width, height] = [size.width, size.height].map((n) =>
                Math.round(n * size.ratio),
            );
            const copy = new OffscreenCanvas(width, height).getContext("2d");
            copy.drawImage(canvas, 0, 0);
            const { data } = copy.getImageData(0, 0, width, height);
            const own = plot.ctx.canvas;
            const frame = plot.ctx.getImageData(0, 0, own.width, own.height).data;
            const { left, top, width: across, height: down } = plot.bbox;
            return {
                ...{ description, shown, ticks, width, height, unit: size.ratio },
                base64: base64(data),
                frame: { base64: base64(frame), width: own.width, height: own.height },
                area: { left, top, right: left + across, bottom: top + down },
            };
        });
    });
    return read.map((members) => new AxesPicture(members));
}

/** Of all axes of the page: their limits, and what tells one picture of them from another. */
export function digests(page) {
    return page.evaluate(async () => {
        const views = [...kirowebPage.figures.values()].flatMap(({ axes }) => [...axes.values()]);
        const digestOf = async ({ width, height }, image) => {
            const copy = new OffscreenCanvas(width, height).getContext("2d");
            copy.drawImage(image, 0, 0);
            const { data } = copy.getImageData(0, 0, width, height);
            return String(new Uint8Array(await crypto.subtle.digest("SHA-256", data)));
        };
        return Promise.all(
            views.map(async ({ canvas, shown, plot }) => {
                const { width, height } = canvas;
                const all = [canvas, plot.ctx.canvas].map((one) => digestOf(one, one));
                return [JSON.stringify(shown), width, height, ...(await Promise.all(all))];
            }),
        );
    });
}

class AxesPicture {
    constructor({ base64, frame, ...members }) {
        Object.assign(this, members);
        this.pixels = Buffer.from(base64, "base64");
        this.frame = { ...frame, pixels: Buffer.from(frame.base64, "base64") };
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
    /** Whether that pixel, or a neighbour, is drawn. */
    hasNear(column, row) {
        const near = [-1, 0, 1];
        return near.some((y) => near.some((x) => this.isDrawn(column + x, row + y)));
    }
    /** All pixels that are drawn. */
    *all() {
        for (let row = 0; row < this.height; ++row) {
            for (let column = 0; column < this.width; ++column) {
                if (this.isDrawn(column, row)) yield [column, row];
            }
        }
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
    /** How many texts stand below the axes, and from where to where they reach at most; told apart
     * by room without ink. */
    textsBelow() {
        const { frame, area, unit } = this;
        const [FROM, TO, ROOM] = [7, 21, 8].map((pixels) => pixels * unit);
        const top = Math.floor(area.bottom) + FROM;
        const rows = Array.from({ length: TO - FROM }, (_, i) => top + i);
        const isInk = (column, row) => frame.pixels[(row * frame.width + column) * 4 + 3] > 40;
        const hasInk = Array.from({ length: frame.width }, (_, column) =>
            rows.some((row) => isInk(column, row)),
        );
        const inked = [...hasInk.keys()].filter((column) => hasInk[column]);
        const count = inked.filter((column, i) => !(column - inked[i - 1] <= ROOM)).length;
        return { count, isClipped: hasInk[0] || hasInk.at(-1) };
    }
}
