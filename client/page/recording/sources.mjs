// Where a recording's bytes come from.

/** @typedef {import("./reader.mjs").Source} Source */

/** @param {Blob} blob @returns {Source} */
export function sourceOfBlob(blob) {
    return {
        size: blob.size,
        read: async (offset, length) =>
            new Uint8Array(await blob.slice(offset, offset + length).arrayBuffer()),
    };
}

/** A server's file, of which only what is read travels. Rejected where the server gives no ranges.
 * @param {string} address @param {typeof fetch} [get] @returns {Promise<Source>} */
export async function sourceOfAddress(address, get = fetch) {
    const ask = async (/** @type {number} */ from, /** @type {number} */ to) => {
        const response = await get(address, { headers: { Range: `bytes=${from}-${to}` } });
        const range = /^bytes (\d+)-(\d+)\/(\d+)$/.exec(
            response.headers.get("Content-Range") ?? "",
        );
        if (response.status !== 206 || Number(range?.[1]) !== from) {
            throw new Error(`${address}: the server gives no part of it (${response.status})`);
        }
        const bytes = new Uint8Array(await response.arrayBuffer());
        return { bytes, size: Number(range?.[3]) };
    };
    const { size } = await ask(0, 0);
    return {
        size,
        read: async (offset, length) =>
            length > 0 ? (await ask(offset, offset + length - 1)).bytes : new Uint8Array(),
    };
}
