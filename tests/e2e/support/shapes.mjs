// What has to be drawn where, worked out from an engine's data alone.

/** The stretches between gaps. */
function stretches(places) {
    const all = [[]];
    for (const place of places) {
        if (place.every(Number.isFinite)) all.at(-1).push(place);
        else all.push([]);
    }
    return all.filter((stretch) => stretch.length > 0);
}

/** Lines through stretches; a place alone is a dot. */
const path = (places, half) => stretches(places).map((points) => ({ points, half }));

/** Of two rows of places, from the one to the other and back. */
const between = (row, other) => [[...row, ...other.reverse()]];

const rectangle = ([x0, y0], [x1, y1]) => {
    const [top, bottom] = [y0, y1].map((y) => [x0, x1].map((x) => [x, y]));
    return between(top, bottom);
};

/** @param {number} at 0: a step is at the first of two places, 1: at the second */
function stepped(places, at) {
    return places.flatMap(([x, y], i) => {
        const [before, level] = places[i - 1] ?? [NaN, NaN];
        const turn = before + (x - before) * at;
        const steps = [
            [turn, level],
            [turn, y],
        ].filter(() => Number.isFinite(turn + level + y));
        return [...steps, [x, y]];
    });
}
const steps =
    (at) =>
    ({ places, unit }) => ({ lines: path(stepped(places, at), 0.75 * unit) });

/** A line across, in pieces: so many of its widths with ink, 0: a dot, and so many without. */
const pieces =
    (on, off) =>
    ({ places: [[from, y], [to]], unit }) => {
        const width = 4 * unit;
        const count = Math.ceil((to - from) / (on + off) / width);
        const begins = Array.from({ length: count }, (_, i) => from + i * (on + off) * width);
        const ends = (at) => (on > 0 ? [at, at + on * width] : [at]).map((x) => [x, y]);
        return { lines: begins.map((at) => ({ points: ends(at), half: width / 2 })) };
    };

/** From data and what `place(x, y)` says of them in pixels, `unit` pixels for a CSS pixel: areas, each
 * of rings, and lines, each with half of its width. */
const KINDS = {
    line: ({ places, unit }) => ({ lines: path(places, 0.75 * unit) }),
    dashed: pieces(4, 3),
    dotted: pieces(0, 2.01),
    "steps before": steps(0),
    "steps after": steps(1),
    "steps middle": steps(0.5),
    area({ places, place, data, unit }) {
        const [, base] = place(0, data.base[0]);
        const areas = stretches(places).filter(({ length }) => length > 1);
        return {
            areas: areas.map((top) =>
                between(
                    top,
                    top.map(([x]) => [x, base]),
                ),
            ),
            lines: path(places, 0.75 * unit),
        };
    },
    band({ place, data: { x, low, high }, unit }) {
        const both = x.map((at, i) => [...place(at, low[i]), ...place(at, high[i])]);
        const parts = stretches(both);
        const row = (part, at) => part.map((ends) => ends.slice(at, at + 2));
        const areas = parts.filter(({ length }) => length > 1);
        return {
            areas: areas.map((part) => between(row(part, 0), row(part, 2))),
            lines: parts.flatMap((part) => [0, 2].flatMap((at) => path(row(part, at), 0.5 * unit))),
        };
    },
    bars({ place, data: { x, y, base, width } }) {
        const there = [...x.keys()].filter((i) => Number.isFinite(y[i]));
        const side = (i, sign) => x[i] + (sign * width[0]) / 2;
        const bar = (i) => rectangle(place(side(i, -1), y[i]), place(side(i, 1), base[0]));
        return { areas: there.map(bar) };
    },
    "error bars"({ place, data: { x, y, minus, plus }, unit }) {
        const there = [...x.keys()].filter((i) => Number.isFinite(y[i]));
        const lines = there.flatMap((i) => {
            const ends = [place(x[i], y[i] + plus[i]), place(x[i], y[i] - minus[i])];
            const caps = ends.map(([px, py]) => [-3, 3].map((side) => [px + side * unit, py]));
            return [ends, ...caps].map((points) => ({ points, half: 0.75 * unit }));
        });
        return { lines };
    },
    scatter: ({ places, data, unit }) => ({
        lines: places.flatMap((at, i) => path([at], (data.size[i] / 2) * unit)),
    }),
    colored: ({ places, unit }) => ({ lines: places.flatMap((at) => path([at], 10 * unit)) }),
    polygon({ places, unit }) {
        const rings = stretches(places);
        const edges = rings.map((ring) => ({ points: [...ring, ring[0]], half: 0.5 * unit }));
        return { areas: [rings], lines: edges };
    },
    outline: ({ places, unit }) => ({ lines: path(places, 0.5 * unit) }),
    text: ({ places, unit }) => ({ texts: places, unit }),
    rectangle: ({ places }) => ({ areas: [rectangle(...places)] }),
    image: ({ place, data: { x, y } }) => ({
        areas: [rectangle(place(x[0], y[0]), place(x[1], y[1]))],
    }),
};

/** In a browser: which pixels lie in shapes that are larger by so much, as a text of "0" and "1". */
function drawMask({ areas = [], lines = [], texts = [], unit, width, height, more }) {
    const context = new OffscreenCanvas(width, height).getContext("2d");
    context.lineJoin = "round";
    if (more > 0) context.lineCap = "round";
    const edges = areas.map((rings) => {
        const edge = new Path2D();
        for (const ring of rings) {
            edge.moveTo(...ring[0]);
            ring.forEach((at) => edge.lineTo(...at));
            edge.closePath();
        }
        return edge;
    });
    for (const edge of edges) context.fill(edge, "evenodd");
    context.globalCompositeOperation = more > 0 ? "source-over" : "destination-out";
    context.lineWidth = 2 * Math.abs(more);
    for (const edge of edges) context.stroke(edge);
    context.globalCompositeOperation = "source-over";
    for (const { points, half } of lines) {
        context.lineWidth = 2 * (half + more);
        context.beginPath();
        if (points.length > 1) {
            points.forEach((at) => context.lineTo(...at));
            context.stroke();
        } else {
            context.arc(...points[0], half + more, 0, 2 * Math.PI);
            context.fill();
        }
    }
    const lineWidth = 2 * (2 * unit + more);
    const font = `${32 * unit}px system-ui, sans-serif`;
    Object.assign(context, { lineWidth, font, textAlign: "right", textBaseline: "middle" });
    for (const at of texts) {
        if (more > 0) context.strokeText("HHLL", ...at);
        context.fillText("HHLL", ...at);
    }
    const { data } = context.getImageData(0, 0, width, height);
    return Array.from({ length: width * height }, (_, i) => (data[4 * i + 3] > 64 ? 1 : 0)).join(
        "",
    );
}

/** How far a pixel may lie outside of what it shows, and how far inside it has to lie so that it, or a
 * neighbour, has to be drawn. */
const OUTSIDE = 1.4;
const INSIDE = 0.3;

/** Which pixels may be drawn, and which have to be, or a neighbour.
 * @returns {Promise<{allowed: Uint8Array, required: Uint8Array}>} */
export async function masksOf(page, data, { width, height, unit, place }) {
    const values = data.y ?? data.y2;
    const places = values ? data.x.map((x, i) => place(x, values[i])) : [];
    const shapes = { ...KINDS[data.kind]({ data, places, place, unit }), width, height };
    const mask = async (more) =>
        Uint8Array.from(await page.evaluate(drawMask, { ...shapes, more }), Number);
    return { allowed: await mask(OUTSIDE), required: await mask(-INSIDE) };
}
