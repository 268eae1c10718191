// Elements, made in one call.

/** @typedef {Record<string, string | number | boolean | null | EventListener>} Attributes */

/** Of the attributes those that are functions listen, those that are false or null are left out.
 * @template {keyof HTMLElementTagNameMap} Tag
 * @param {Tag} tag @param {Attributes} [attributes] @param {(Node | string)[]} children
 * @returns {HTMLElementTagNameMap[Tag]} */
export function make(tag, attributes = {}, ...children) {
    const element = document.createElement(tag);
    for (const [name, value] of Object.entries(attributes)) {
        if (typeof value === "function") element.addEventListener(name, value);
        else if (value !== false && value !== null) {
            element.setAttribute(name, value === true ? "" : String(value));
        }
    }
    element.append(...children);
    return element;
}

/** @param {string} paths of an icon, 16 by 16 */
export function icon(paths) {
    const svg = document.createElementNS("http://www.w3.org/2000/svg", "svg");
    svg.setAttribute("viewBox", "0 0 16 16");
    svg.setAttribute("aria-hidden", "true");
    const path = document.createElementNS("http://www.w3.org/2000/svg", "path");
    path.setAttribute("d", paths);
    svg.append(path);
    return svg;
}

/** A text that may be cut off, and is then told whole. @param {HTMLElement} element @param {string} text */
export function setText(element, text) {
    if (element.textContent === text) return;
    element.textContent = text;
    element.title = text;
}

/** @param {string} id @returns {HTMLElement} */
export function byId(id) {
    const found = document.getElementById(id);
    if (!found) throw new Error(`no element ${id}`);
    return found;
}
