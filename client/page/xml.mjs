// Texts within XML.

/** @type {Record<string, string>} */
const ENTITIES = { "&": "amp", "<": "lt", ">": "gt", '"': "quot" };

/** As the content of an element or of an attribute. What XML cannot have at all, as control
 * characters, becomes a space. @param {string} text @returns {string} */
export function escapeXml(text) {
    const clean = text.replace(/[\p{Cc}\p{Cs}\uFFFE\uFFFF]/gu, " ");
    return clean.replace(/[&<>"]/g, (sign) => `&${ENTITIES[sign]};`);
}
