// Where a recording's bytes come from.

/** @typedef {import("./reader.mjs").Source} Source */

const FORBIDDEN = 403;

/** @param {Blob} blob @returns {Source} */
export function sourceOfBlob(blob) {
    return {
        size: blob.size,
        read: async (offset, length) =>
            new Uint8Array(await blob.slice(offset, offset + length).arrayBuffer()),
    };
}

/** A server's file, of which only what is read travels. Rejected where the server gives no ranges.
 * @param {string} address
 * @param {() => Promise<string>} token what lets somebody in there; empty: it is open to all
 * @param {typeof fetch} [get] @returns {Promise<Source>} */
export async function sourceOfAddress(address, token, get = fetch) {
    const ask = async (/** @type {number} */ from, /** @type {number} */ to) => {
        /** @type {Record<string, string>} */
        const headers = { Range: `bytes=${from}-${to}` };
        const secret = await token();
        if (secret) headers.Authorization = `Bearer ${secret}`;
        const response = await get(address, { headers });
        if (response.status === FORBIDDEN) {
            throw new Error(`${address}: open the link that the program printed last`);
        }
        const range = /^bytes (\d+)-(\d+)\/(\d+)$/.exec(
            response.headers.get("Content-Range") ?? "",
        );
        if (response.status !== 206 || Number(range?.[1]) !== from) {
            throw new Error(`${address}: the server gives no part of it (${response.status})`);
        }
        const bytes = new Uint8Array(await response.arrayBuffer());
        if (bytes.length === 0 || bytes.length > to - from + 1) {
            throw new Error(`${address}: the server gives another part than was asked for`);
        }
        return { bytes, size: Number(range?.[3]) };
    };
    const { size } = await ask(0, 0);
    return {
        size,
        read: async (offset, length) => {
            const whole = new Uint8Array(length);
            // A server may give less at once than it was asked for.
            for (let done = 0; done < length;) {
                const part = await ask(offset + done, offset + length - 1);
                if (part.size !== size) throw new Error(`${address}: it has changed meanwhile`);
                whole.set(part.bytes, done);
                done += part.bytes.length;
            }
            return whole;
        },
    };
}

/** @param {Blob | string} file or its address @param {() => Promise<string>} token
 * @returns {Promise<Source>} */
export async function sourceOf(file, token) {
    return typeof file === "string" ? sourceOfAddress(file, token) : sourceOfBlob(file);
}
