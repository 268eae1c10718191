// Names of files that are saved.

const LONGEST = 60;

/** @param {string} text */
function plain(text) {
    const words = text
        .normalize("NFKD")
        .replace(/\p{M}/gu, "")
        .replace(/[^\p{L}\p{N}]+/gu, "-");
    return words
        .slice(0, LONGEST)
        .replace(/^-+|-+$/g, "")
        .toLowerCase();
}

/** Says what it is and when it was saved; UTC. @param {string} figure its title @param {string} axes
 * their title @param {Date} date @param {string} extension */
export function fileName(figure, axes, date, extension) {
    const moment = date.toISOString().slice(0, 19).replace(/:/g, "").replace("T", "-");
    const parts = [plain(figure) || "figure", plain(axes), moment];
    return `${parts.filter((part) => part !== "").join("-")}.${extension}`;
}
