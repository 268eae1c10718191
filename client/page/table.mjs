// A table of what is seen.

import { chosenAxes, makeAxesChoice } from "./axes_choice.mjs";
import { make } from "./dom.mjs";
import { openDialog } from "./keys.mjs";

/** Rows that are shown; there is the CSV file for all. */
const ROWS = 500;

/** What rows are shown. @param {{total: number, step: number}} part */
export function captionOf({ total, step }) {
    const count = `${total.toLocaleString("en")} ${total === 1 ? "row" : "rows"}`;
    const part = step === 1 ? "" : `Every ${ordinal(step)} of `;
    return `${part}${count} of what is seen`;
}

/** @param {number} number */
function ordinal(number) {
    const isTeen = Math.floor(number / 10) % 10 === 1;
    const ending = (!isTeen && ["th", "st", "nd", "rd"][number % 10]) || "th";
    return number.toLocaleString("en") + ending;
}

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
        const table = await worker.ask({ kind: "table", axes, rows: ROWS });
        // Others may have been chosen since.
        if (choice.value === wanted) scroll.replaceChildren(makeTable(table));
    };
    choice.hidden = figure.axes.size < 2;
    choice.addEventListener("change", fill);
    openDialog(`Values${title ? ` of ${title}` : ""}`).append(choice, scroll);
    await fill();
}

/** @param {{header: string[], rows: (string | number)[][], total: number, step: number}} table */
function makeTable({ header, rows, ...part }) {
    const cells = (/** @type {"th" | "td"} */ tag, /** @type {(string | number)[]} */ row) =>
        make(
            "tr",
            {},
            ...row.map((value) => make(tag, tag === "th" ? { scope: "col" } : {}, String(value))),
        );
    const head = make("thead", {}, cells("th", header));
    return make(
        "table",
        {},
        make("caption", {}, captionOf(part)),
        head,
        make("tbody", {}, ...rows.map((row) => cells("td", row))),
    );
}
