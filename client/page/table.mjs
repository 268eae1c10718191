// A table of what is seen.

import { make } from "./dom.mjs";
import { openDialog } from "./keys.mjs";

/** Rows that are shown; there is the CSV file for all. */
const ROWS = 500;

/** What rows are shown. @param {{total: number, step: number}} part @param {string} label of x */
export function captionOf({ total, step }, label) {
    const count = `${total.toLocaleString("en")} ${total === 1 ? "row" : "rows"}`;
    const part = step === 1 ? "" : `Every ${ordinal(step)} of `;
    return `${part}${count} of what is seen${label && `, by ${label}`}`;
}

/** @param {number} number */
function ordinal(number) {
    const isTeen = Math.floor(number / 10) % 10 === 1;
    const ending = (!isTeen && ["th", "st", "nd", "rd"][number % 10]) || "th";
    return number.toLocaleString("en") + ending;
}

/** @param {import("./worker_link.mjs").WorkerLink} worker
 * @param {import("./axes_view.mjs").AxesView} view */
export async function showTable(worker, view) {
    const { id: axes, title, x } = view.description;
    const { header, rows, ...part } = await worker.ask({ kind: "table", axes, rows: ROWS });
    const dialog = openDialog(`Values${title ? ` of ${title}` : ""}`);
    const cells = (/** @type {"th" | "td"} */ tag, /** @type {(string | number)[]} */ row) =>
        make(
            "tr",
            {},
            ...row.map((value) => make(tag, tag === "th" ? { scope: "col" } : {}, String(value))),
        );
    const head = make("thead", {}, cells("th", header));
    const body = make(
        "tbody",
        {},
        ...rows.map((/** @type {(string | number)[]} */ row) => cells("td", row)),
    );
    const caption = make("caption", {}, captionOf(part, x.label));
    const scroll = make(
        "div",
        { class: "scroll", tabindex: 0 },
        make("table", {}, caption, head, body),
    );
    dialog.append(scroll);
}
