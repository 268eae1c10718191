// A table of what is seen.

import { make } from "./dom.mjs";
import { openDialog } from "./keys.mjs";

/** Rows that are shown; there is the CSV file for all. */
const ROWS = 500;

/** @param {import("./worker_link.mjs").WorkerLink} worker
 * @param {import("./axes_view.mjs").AxesView} view */
export async function showTable(worker, view) {
    const { id: axes, title, x } = view.description;
    const { header, rows } = await worker.ask({ kind: "table", axes, rows: ROWS });
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
    const count = rows.length === ROWS ? `The first ${ROWS} rows` : `${rows.length} rows`;
    const caption = make(
        "caption",
        {},
        `${count} of what is seen${x.label ? `, by ${x.label}` : ""}`,
    );
    const scroll = make(
        "div",
        { class: "scroll", tabindex: 0 },
        make("table", {}, caption, head, body),
    );
    dialog.append(scroll);
}
