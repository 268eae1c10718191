// Recordings in memory, and what is in them.
import { Reader } from "../../../client/page/recording/reader.mjs";
import { fzstd } from "./packages.mjs";

export const zstd = (bytes, size) => fzstd().decompress(bytes, new Uint8Array(size));

export const bytesOf = async (blob) => new Uint8Array(await blob.arrayBuffer());

/** A source that tells of what it is asked for. */
export const sourceOf = (bytes, asked = () => {}) => ({
    size: bytes.length,
    read: async (offset, length) => {
        asked(length);
        return bytes.subarray(offset, offset + length);
    },
});

export const open = (bytes, options) =>
    Reader.open(sourceOf(bytes), { decompress: { zstd }, ...options });

/** All that a reader finds, in its order. */
export async function messagesOf(reader) {
    const messages = [];
    for (const chunk of reader.chunks) messages.push(...(await reader.read(chunk)));
    return messages;
}
