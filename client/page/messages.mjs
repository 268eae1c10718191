// What the page's two threads say to each other: types, and a few constants. The worker has the
// data: it keeps what the engine sends, chooses limits and draws. The main thread has the elements:
// it lays out, draws axes and takes what somebody does.
//
// The main thread answers each `scene` with `laid`, behind a `canvas` for each new axes and a
// `resize` for each whose size is another one; the worker paints nothing before. It answers each
// `frame` with `painted`. Both also while the page is hidden, if it can: nobody waits for a hidden
// page.

/** @typedef {[number, number]} Range low and high; low < high */

/** @typedef {{x: Range, y: Range, y2: Range | null}} Limits of axes, as they are shown */

/** The newest stretch of this width. @typedef {{follow: number}} Follow */

/**
 * @typedef {object} AxisDescription
 * @property {string} label
 * @property {string} unit
 * @property {"linear" | "log" | "time"} scale
 * @property {[number, string][] | null} ticks in place of the page's own
 */

/**
 * @typedef {object} SeriesDescription
 * @property {number} id
 * @property {string} type of a type that is known
 * @property {string} name empty: not in the legend
 * @property {string} color as it is drawn, by the theme
 * @property {boolean} visible as it is drawn: the engine and the legend show it
 * @property {"y" | "y2"} axis
 * @property {string | null} colorMap whose colour bar is shown; null: none
 */

/**
 * @typedef {object} AxesDescription
 * @property {number} id
 * @property {string} title
 * @property {AxisDescription} x
 * @property {AxisDescription} y
 * @property {AxisDescription | null} y2 null: there is none
 * @property {boolean} equalAspect
 * @property {number | null} linkX
 * @property {boolean} legend whether there is one
 * @property {number | null} row
 * @property {number | null} column
 * @property {boolean} picks whether the engine wants them
 * @property {SeriesDescription[]} series
 * @property {Limits} limits as they will be, so that axes need not be laid out twice
 */

/**
 * @typedef {object} ControlDescription
 * @property {number} id
 * @property {"button" | "slider" | "number" | "choice"} type
 * @property {string} label
 * @property {number | null} [low]
 * @property {number | null} [high]
 * @property {number | null} [step]
 * @property {number} [value]
 * @property {string[]} [options]
 * @property {number} said another number whenever the engine has said the value
 */

/**
 * @typedef {object} FigureDescription
 * @property {number} id
 * @property {number} side with two recordings: on which it is shown, from the left; else 0
 * @property {string} title
 * @property {number} columns 0: chosen by the page
 * @property {ControlDescription[]} controls
 * @property {AxesDescription[]} axes
 */

/**
 * Sizes are CSS pixels of the plotting area; `ratio` device pixels for each of them. Places are CSS
 * pixels from its upper left corner, except where they are said to be of the data.
 *
 * @typedef {(
 *     | {kind: "start", address: string | null, theme: Theme, hidden: boolean}
 *     | {kind: "told", id: number, value: string | boolean | null}
 *     | {kind: "link"}
 *     | {kind: "laid", stamp: number}
 *     | {kind: "canvas", axes: number, canvas: OffscreenCanvas, width: number, height: number,
 *        ratio: number}
 *     | {kind: "resize", axes: number, width: number, height: number, ratio: number}
 *     | {kind: "gone", axes: number}
 *     | {kind: "view", axes: number, x: Range | Follow | null, y: Range | null, y2: Range | null}
 *     | {kind: "visible", series: number, visible: boolean}
 *     | {kind: "theme", theme: Theme}
 *     | {kind: "hidden", hidden: boolean}
 *     | {kind: "pause", paused: boolean}
 *     | {kind: "painted", stamp: number}
 *     | {kind: "probe", id: number, axes: number, x: number, y: number | null, reach: number}
 *     | {kind: "pick", axes: number, x: number, y: number, near?: {series: number, index: number}}
 *     | {kind: "key", key: string, axes: number | null}
 *     | {kind: "control", id: number, value?: number}
 *     | {kind: "csv", id: number, axes: number[]}
 *     | {kind: "table", id: number, axes: number[], rows: number}
 *     | {kind: "vectors", id: number, axes: number, limits: Limits}
 *     | {kind: "picture", id: number, axes: number, limits: Limits, ratio: number}
 *     | {kind: "latency", id: number}
 *     | {kind: "record", most: number | null}
 *     | {kind: "replay", files: (Blob | string)[], at: Beginning}
 *     | {kind: "player", wish: PlayerWish}
 *     | {kind: "report", text: string}
 *     | {kind: "retry"}
 *     | {kind: "close"}
 * )} ToWorker
 *
 * - `start`, once, opens the connection; null: there is none. `told` answers `ask`; null: it could not
 *   be found out. `link`: a link was opened that may have brought another token.
 * - `canvas`: until the first `view` the worker draws into it, in its whole size. `gone`: nobody shows
 *   these axes any more.
 * - `view`: what somebody looks at, in values of the data; null: what the engine says. Axes that
 *   are linked get the same x. The worker tells the engine.
 * - `visible`: by the legend. It holds until the series is gone.
 * - `painted`: what the `frame` with this stamp asked for is on the screen.
 * - `probe`: what lies there. With `y: null` only x counts; `reach`: how far off it may lie.
 * - `pick`, of the data, `key` and `control` go to the engine.
 * - `record`: what comes from now on, in a file of at most so many bytes; null: no longer.
 * - `replay`: this recording is shown from now on, in the place of everything else, or these two
 *   beside each other; a text: its address. `player`: what is to be seen of it.
 * - `report`: something went wrong in the main thread; the engine and those who look are told.
 * - `csv`, `table` (at most so many rows), `vectors` and `picture` are of what is seen. Of more than
 *   one axes each row names its own. Pictures have the limits for which the main thread has ticks.
 *   `latency`: what is known of frames' ways.
 */

/** Where a recording is opened: at milliseconds since it began, or at the first frame with that
 * number. @typedef {{time: number} | {frame: number}} Beginning */

/**
 * What a recording's player is to do. Times are milliseconds since its beginning. Speed: above 0;
 * Infinity: each frame, as fast as it can be shown. "trouble": the next frame that was late, or failed,
 * or with an error.
 * @typedef {(
 *     | {do: "play", speed: number}
 *     | {do: "stop"}
 *     | {do: "seek", time: number}
 *     | {do: "step", by: 1 | -1}
 *     | {do: "trouble"}
 * )} PlayerWish
 */

/** A recording on its side, from the left. Begin: milliseconds since 1970; duration: milliseconds.
 * @typedef {{name: string, begin: number, duration: number}} RecordingSide */

/** @typedef {{ground: string, text: string, dark: boolean}} Theme colours as "#rrggbb" */

/**
 * An element that lies at a place.
 * @typedef {object} Probed
 * @property {number} series
 * @property {number} index counted since the series was last set
 * @property {number} px where it lies, in CSS pixels of the plotting area
 * @property {number} py
 * @property {Record<string, number>} values by column: "x", "y", "size", "value", "low", "high",
 *   "minus", "plus", "z"
 */

/**
 * @typedef {(
 *     | {kind: "ask", id: number, what: "token" | "served"}
 *     | {kind: "state", name: string, reason: string, since?: number}
 *     | {kind: "hello", configuration: Record<string, any>, known: boolean}
 *     | {kind: "scene", stamp: number, keys: boolean, figures: FigureDescription[]}
 *     | {kind: "frame", stamp: number, frame: number, limits: Record<number, Limits>,
 *        colors: Record<number, Range>, pictures: Record<number, ImageBitmap>}
 *     | {kind: "statistics", frames: number, flush: number, bytes: number, frame: number,
 *        news: number, changed: number[], outcomes: Record<string, number>, recorded: number}
 *     | {kind: "recorded", file: Blob, reason: string}
 *     | {kind: "recording", duration: number, sides: RecordingSide[]}
 *     | {kind: "moment", time: number, frames: number[], isPlaying: boolean, why: string}
 *     | {kind: "survey", part: number, marks: Uint8Array[]}
 *     | {kind: "error", text: string}
 *     | {kind: "probed", id: number, values: Probed[]}
 *     | {kind: "csv", id: number, text: string}
 *     | {kind: "table", id: number, header: string[], rows: (number | string)[][],
 *        total: number, step: number}
 *     | {kind: "vectors", id: number, width: number, height: number, svg: string}
 *     | {kind: "picture", id: number, bitmap: ImageBitmap | null}
 *     | {kind: "latency", id: number, total: number,
 *        columns: import("./latency.mjs").Columns,
 *        clock: import("../engine_clock.mjs").Clock | null}
 *     | {kind: "unanswered", id: number, text: string}
 * )} ToMain
 *
 * - `ask`: what only the main thread can find out: `Access.token()` and `Access.isServed()`.
 * - `hello`: the connection is live; "known": this page can read the engine's vocabulary.
 * - `scene`: everything but the data, whenever something of it besides limits has changed, at most
 *   once a frame; "keys": whether the engine listens to them.
 * - `frame`: what is drawn now has these limits, by axes, and these limits of colours, by series; of all
 *   that could be drawn. Sent when one of them, or the scene, is another one than before, or with pictures.
 *   From the first `view` on all axes get those, and the worker draws into no canvas any more: that
 *   is seen a frame before the main thread can draw ticks and grid for it, and before it can put
 *   the old picture, which it has moved and stretched, back into its place.
 * - `statistics`, twice a second: frames painted since the last ones; the median of the
 *   microseconds from the engine's checkout of a token to its return, 0: none; bytes received
 *   altogether; the engine's number of the last frame; when something came last, as `Date.now()`
 *   says it, 0: nothing yet; the figures in which something is new since the last ones; how often
 *   each outcome was answered; bytes of the recording, 0: there is none.
 * - `recorded`: the recording has ended, as it was wanted, or why.
 * - `recording`: one is open, or two; how many milliseconds the longer one lasts. `moment`: what is
 *   seen of it, with the engine's number of each side's frame, and why, if somebody asked for trouble.
 *   `survey`: how much was gone through, of 1, and for each side what is in each of the equal
 *   stretches of that time (`MARK`).
 * - An answer for axes that are not there is an empty one; for `picture` it is null.
 * - `unanswered`: why a question has no answer.
 * - `table`: each series' first row and then every `step`-th, of `total` rows of all series.
 * - `latency`: how many frames there were, how far the engine's clock is ahead of the page's, if that
 *   is known, and the stamps of the newest that were painted or late;
 *   times are those of a recording, or of the page's clock.
 * - `vectors`: elements of SVG to be put into a group, in CSS pixels of the plotting area.
 */

/** The vocabulary that this page reads. */
export const VOCABULARY = "kirofigures/1";

/** What became of a frame. @typedef {"painted" | "hidden" | "paused" | "failed"} Outcome */
