// A table of what is seen.

import { chosenAxes, makeAxesChoice } from "./axes_choice.mjs";
import { make } from "./dom.mjs";
import { openDialog } from "./keys.mjs";

/** Rows that are shown; there is the CSV file for all. */
const ROWS = 500;

/** @param {import("./worker_link.mjs").WorkerLink} worker
 * @param {import("./figure_view.mjs").FigureView} figure
 * @param {import("./axes_view.mjs").AxesView} view whose values are shown at first */
export async function showTable(worker, figure, view) {
    const { title } = figure.description;
    const choice = makeAxesChoice(figure, view);
    const scroll = make("div", { class: "scroll", tabindex: 0 });
    const fill = async () => {
        const wanted = choice.value;
        const axes = chosenAxes(wanted);
        const { header, rows } = await worker.ask({ kind: "table", axes, rows: ROWS });
        // Others may have been chosen since.
        if (choice.value === wanted) scroll.replaceChildren(makeTable(header, rows));
    };
    choice.hidden = figure.axes.size < 2;
    choice.addEventListener("change", fill);
    openDialog(`Values${title ? ` of ${title}` : ""}`).append(choice, scroll);
    await fill();
}

/** @param {string[]} header @param {(string | number)[][]} rows */
function makeTable(header, rows) {
    const cells = (/** @type {"th" | "td"} */ tag, /** @type {(string | number)[]} */ row) =>
        make(
            "tr",
            {},
            ...row.map((value) => make(tag, tag === "th" ? { scope: "col" } : {}, String(value))),
        );
    const count = rows.length === ROWS ? `The first ${ROWS} rows` : `${rows.length} rows`;
    const caption = make("caption", {}, `${count} of what is seen`);
    const head = make("thead", {}, cells("th", header));
    return make(
        "table",
        {},
        caption,
        head,
        make("tbody", {}, ...rows.map((row) => cells("td", row))),
    );
}
