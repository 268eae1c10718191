// What has to be drawn where, worked out from an engine's data alone.

/** A shape has a box, and for each place the distance from its edge, below 0 inside. */
function segment([x0, y0], [x1, y1], half) {
    const [dx, dy] = [x1 - x0, y1 - y0];
    const length = dx * dx + dy * dy || 1;
    const distance = (x, y) => {
        const at = Math.min(1, Math.max(0, ((x - x0) * dx + (y - y0) * dy) / length));
        return Math.hypot(x - x0 - at * dx, y - y0 - at * dy) - half;
    };
    return {
        box: boxOf(
            [
                [x0, y0],
                [x1, y1],
            ],
            half,
        ),
        distance,
    };
}

const disc = (at, radius) => segment(at, at, radius);

/** What lies inside an odd number of rings. */
function area(rings) {
    const edges = rings.flatMap((ring) => ring.map((a, i) => [a, ring[(i + 1) % ring.length]]));
    const sides = edges.map(([a, b]) => segment(a, b, 0));
    const distance = (x, y) => {
        const crossed = edges.filter(
            ([[x0, y0], [x1, y1]]) =>
                y0 > y !== y1 > y && x < x0 + ((y - y0) * (x1 - x0)) / (y1 - y0),
        );
        const near = Math.min(...sides.map((side) => side.distance(x, y)));
        return crossed.length % 2 === 1 ? -near : near;
    };
    return { box: boxOf(rings.flat(), 0), distance };
}

function boxOf(places, half) {
    const [xs, ys] = [places.map(([x]) => x), places.map(([, y]) => y)];
    return [
        Math.min(...xs) - half,
        Math.min(...ys) - half,
        Math.max(...xs) + half,
        Math.max(...ys) + half,
    ];
}

/** The stretches between gaps. */
function stretches(places) {
    const all = [[]];
    for (const place of places) {
        if (place.every(Number.isFinite)) all.at(-1).push(place);
        else all.push([]);
    }
    return all.filter((stretch) => stretch.length > 0);
}

/** Segments through stretches; a place alone is a dot. */
function path(places, half, isClosed = false) {
    return stretches(places).flatMap((stretch) => {
        const around = isClosed ? [...stretch, stretch[0]] : stretch;
        if (around.length === 1) return [disc(around[0], half)];
        return around.slice(1).map((place, i) => segment(around[i], place, half));
    });
}

const rectangle = ([x0, y0], [x1, y1]) =>
    area([
        [
            [x0, y0],
            [x1, y0],
            [x1, y1],
            [x0, y1],
        ],
    ]);

/** @param {number} at 0: a step is at the first of two places, 1: at the second */
function stepped(places, at) {
    return places.flatMap(([x, y], i) => {
        const [before, level] = places[i - 1] ?? [NaN, NaN];
        const turn = before + (x - before) * at;
        return Number.isFinite(turn + level + y)
            ? [
                  [turn, level],
                  [turn, y],
                  [x, y],
              ]
            : [[x, y]];
    });
}

/** From data and what `place(x, y)` says of them in pixels, `unit` pixels for a CSS pixel. */
const KINDS = {
    line: ({ places, unit }) => path(places, 0.75 * unit),
    "steps before": ({ places, unit }) => path(stepped(places, 0), 0.75 * unit),
    "steps after": ({ places, unit }) => path(stepped(places, 1), 0.75 * unit),
    "steps middle": ({ places, unit }) => path(stepped(places, 0.5), 0.75 * unit),
    area({ places, place, data, unit }) {
        const [, base] = place(0, data.base[0]);
        const ground = stretches(places)
            .filter((stretch) => stretch.length > 1)
            .map((top) => area([[...top, ...top.map(([x]) => [x, base]).reverse()]]));
        return [...ground, ...path(places, 0.75 * unit)];
    },
    band({ place, data }) {
        const both = data.x.map((x, i) => [...place(x, data.low[i]), ...place(x, data.high[i])]);
        return stretches(both)
            .filter((stretch) => stretch.length > 1)
            .map((part) =>
                area([
                    [...part.map(([x, low]) => [x, low]), ...part.map((p) => p.slice(2)).reverse()],
                ]),
            );
    },
    bars: ({ place, data: { x, y, base, width } }) =>
        x
            .map((at, i) => [place(at - width[0] / 2, y[i]), place(at + width[0] / 2, base[0])])
            .filter(([[, top]]) => Number.isFinite(top))
            .map(([a, b]) => rectangle(a, b)),
    "error bars": ({ place, data: { x, y, minus, plus }, unit }) =>
        x.flatMap((at, i) => {
            const ends = [place(at, y[i] + plus[i]), place(at, y[i] - minus[i])];
            if (!Number.isFinite(y[i])) return [];
            const caps = ends.map(([px, py]) =>
                segment([px - 3 * unit, py], [px + 3 * unit, py], 0.75 * unit),
            );
            return [segment(...ends, 0.75 * unit), ...caps];
        }),
    scatter: ({ places, data, unit }) =>
        places.flatMap((at, i) =>
            at.every(Number.isFinite) ? [disc(at, (data.size[i] / 2) * unit)] : [],
        ),
    colored: ({ places, unit }) => places.map((at) => disc(at, 10 * unit)),
    polygon: ({ places, unit }) => [area(stretches(places)), ...path(places, 0.5 * unit, true)],
    outline: ({ places, unit }) => path(places, 0.5 * unit),
    rectangle: ({ places }) => [rectangle(places[0], places[1])],
    image: ({ place, data: { x, y } }) => [rectangle(place(x[0], y[0]), place(x[1], y[1]))],
};

/** How far the middle of a pixel may lie outside of what it shows, and how far inside it has to lie
 * so that it, or a neighbour, has to be drawn. */
const OUTSIDE = 1.6;
const INSIDE = 0.3;

/** Which pixels may be drawn, and which have to be, or a neighbour.
 * @returns {{allowed: Uint8Array, required: Uint8Array}} */
export function masksOf(data, { width, height, unit, place }) {
    const values = data.y ?? data.y2;
    const places = values ? data.x.map((x, i) => place(x, values[i])) : [];
    const allowed = new Uint8Array(width * height);
    const required = new Uint8Array(width * height);
    for (const { box, distance } of KINDS[data.kind]({ data, places, place, unit })) {
        const [left, top] = [0, 1].map((i) => Math.max(0, Math.floor(box[i] - 2)));
        const [right, bottom] = [Math.min(width, box[2] + 2), Math.min(height, box[3] + 2)];
        for (let row = top; row < bottom; ++row) {
            for (let column = left; column < right; ++column) {
                const far = distance(column + 0.5, row + 0.5);
                if (far <= OUTSIDE) allowed[row * width + column] = 1;
                if (far <= -INSIDE) required[row * width + column] = 1;
            }
        }
    }
    return { allowed, required };
}
