// Columns of elements: appended at the end, forgotten at the beginning, and searched. An element has
// a number, its index: it is counted from when the series was last set, and stays when others are
// forgotten.

/** @typedef {"f64" | "f32" | "u8"} ElementType */
/** @typedef {Float64Array | Float32Array | Uint8Array} Elements */

/**
 * What a series has as its x: elements that travelled, or a rule.
 * @typedef {object} Places
 * @property {number} begin the index of the first
 * @property {number} end
 * @property {boolean} isSorted no element is less than one before it, and each is a number
 * @property {(index: number) => number} at
 * @property {(value: number, from?: number) => number} lowerBound the first index, not before
 *   `from`, of an element that is not less; REQUIRES: `isSorted`
 * @property {(from: number, to: number, least?: number) => [number, number]} extremes
 */

const TYPES = { u8: Uint8Array, f32: Float32Array, f64: Float64Array };
/** Elements whose extremes are known together. */
const BLOCK = 256;
const SMALLEST = 1024;

/** Elements of a block as they came. No copy where they are aligned.
 * @param {ElementType} type @param {Uint8Array} data @param {number} offset bytes
 * @param {number} count @returns {Elements} REQUIRES: they lie within the data */
export function elementsOf(type, data, offset, count) {
    const Type = TYPES[type];
    const begin = data.byteOffset + offset;
    if (begin % Type.BYTES_PER_ELEMENT === 0) {
        return new Type(/** @type {ArrayBuffer} */ (data.buffer), begin, count);
    }
    const size = count * Type.BYTES_PER_ELEMENT;
    return new Type(data.slice(offset, offset + size).buffer);
}

/** The type that keeps what all can say. @param {Elements[]} all */
function widerOf(...all) {
    const { u8, f32, f64 } = TYPES;
    return [f64, f32, u8].find((Type) => all.some((one) => one instanceof Type)) ?? f64;
}

/** With as many elements before it, which disturb no order. @param {Elements} elements
 * @param {number} gap @returns {Elements} */
function behindGap(elements, gap) {
    const moved = new (widerOf(elements))(gap + elements.length).fill(
        elements[0] ?? -Infinity,
        0,
        gap,
    );
    moved.set(elements, gap);
    return moved;
}

/** @implements {Places} */
export class Column {
    /** Element i lies at i - `#offset`, which is a multiple of BLOCK. */
    #elements;
    #offset = 0;
    #begin = 0;
    #end = 0;
    /** Of each whole block, from the offset on. @type {number[]} */
    #lows = [];
    /** @type {number[]} */
    #highs = [];
    /** Indices up to which the blocks have been gone through, or the elements for their order. */
    #summed = 0;
    #ordered = 0;
    #isSorted = true;
    /** Whether somebody else reads what is there: it is not moved then. */
    #isShared = false;

    /** @param {Elements} elements which are the column's from now on
     * @param {number} [first] the index of the first one */
    constructor(elements, first = 0) {
        const gap = first % BLOCK;
        this.#elements = gap > 0 ? behindGap(elements, gap) : elements;
        this.#offset = this.#summed = this.#ordered = first - gap;
        this.#begin = first;
        this.#end = first + elements.length;
    }

    get begin() {
        return this.#begin;
    }
    get end() {
        return this.#end;
    }
    /** Where the elements lie: that with an index i at i - `offset`. */
    get elements() {
        return this.#elements;
    }
    get offset() {
        return this.#offset;
    }
    /** @param {number} index */
    at(index) {
        return this.#elements[index - this.#offset];
    }

    /** As it is now; what happens to this one leaves it as it is. @returns {Column} */
    snapshot() {
        this.#isShared = true;
        const copy = new Column(this.#elements);
        copy.#offset = this.#offset;
        copy.#begin = this.#begin;
        copy.#end = this.#end;
        copy.#summed = copy.#ordered = this.#offset;
        return copy;
    }

    /** @param {Elements} added @param {number} keep so many of the newest stay */
    append(added, keep) {
        const end = this.#end + added.length;
        const begin = Math.max(this.#begin, end - keep);
        this.#makeRoom(begin, end, widerOf(this.#elements, added));
        const skipped = Math.max(0, this.#offset - this.#end);
        this.#elements.set(
            skipped ? added.subarray(skipped) : added,
            end - added.length + skipped - this.#offset,
        );
        this.#begin = begin;
        this.#end = end;
        this.#ordered = Math.max(this.#ordered, this.#offset);
    }

    /** @param {number} keep so many of the newest stay */
    forget(keep) {
        this.#begin = Math.max(this.#begin, this.#end - keep);
    }

    /** @param {number} begin @param {number} end what has to fit
     * @param {typeof TYPES[ElementType]} Type */
    #makeRoom(begin, end, Type) {
        const old = this.#elements;
        const isRight = old instanceof Type;
        if (isRight && end - this.#offset <= old.length) return;
        const offset = begin - (begin % BLOCK);
        const needed = end - offset;
        const from = Math.min(offset, this.#end) - this.#offset;
        const to = this.#end - this.#offset;
        if (isRight && !this.#isShared && needed <= old.length * 0.75) {
            old.copyWithin(0, from, to);
        } else {
            this.#elements = new Type(Math.max(SMALLEST, Math.ceil(needed * 1.5)));
            this.#elements.set(old.subarray(from, to));
            this.#isShared = false;
        }
        const gone = (offset - this.#offset) / BLOCK;
        this.#lows.splice(0, gone);
        this.#highs.splice(0, gone);
        this.#offset = offset;
        this.#summed = Math.max(this.#summed, offset);
    }

    /** The least and the greatest of the elements from index `from` to before `to` that are finite
     * and, for a logarithmic axis, above `least`. [Infinity, -Infinity]: there is none.
     * @param {number} from @param {number} to @param {number} [least]
     * @returns {[number, number]} */
    extremes(from, to, least = -Infinity) {
        const first = Math.ceil(from / BLOCK);
        const last = Math.floor(to / BLOCK);
        /** @type {[number, number]} */
        const found = [Infinity, -Infinity];
        if (last <= first) {
            this.#scan(from, to, least, found);
            return found;
        }
        this.#sum(last * BLOCK);
        this.#scan(from, first * BLOCK, least, found);
        const shift = this.#offset / BLOCK;
        for (let block = first; block < last; ++block) {
            const low = this.#lows[block - shift];
            const high = this.#highs[block - shift];
            if (high > found[1] && high > least) found[1] = high;
            if (low > least) {
                if (low < found[0]) found[0] = low;
            } else if (high > least) {
                this.#scan(block * BLOCK, (block + 1) * BLOCK, least, found);
            }
        }
        this.#scan(last * BLOCK, to, least, found);
        return found;
    }

    /** @param {number} from @param {number} to @param {number} least
     * @param {[number, number]} found */
    #scan(from, to, least, found) {
        const elements = this.#elements;
        const end = to - this.#offset;
        let low = found[0];
        let high = found[1];
        // Nested, since the inner conditions are seldom asked for.
        for (let i = from - this.#offset; i < end; ++i) {
            const value = elements[i];
            if (value < low) {
                if (value > least) low = value;
            }
            if (value > high) {
                if (value < Infinity) high = value;
            }
        }
        found[0] = low;
        if (high > least) found[1] = high;
    }

    /** @param {number} end a multiple of BLOCK */
    #sum(end) {
        /** @type {[number, number]} */
        const found = [0, 0];
        for (; this.#summed < end; this.#summed += BLOCK) {
            found[0] = Infinity;
            found[1] = -Infinity;
            this.#scan(this.#summed, this.#summed + BLOCK, -Infinity, found);
            this.#lows.push(found[0]);
            this.#highs.push(found[1]);
        }
    }

    get isSorted() {
        const elements = this.#elements;
        const end = this.#end - this.#offset;
        let i = this.#ordered - this.#offset;
        if (i === 0 && end > 0) {
            this.#isSorted = !Number.isNaN(elements[0]);
            i = 1;
        }
        while (this.#isSorted && i < end) {
            if (!(elements[i] >= elements[i - 1])) this.#isSorted = false;
            ++i;
        }
        this.#ordered = this.#end;
        return this.#isSorted;
    }

    /** @param {number} value @param {number} [from] */
    lowerBound(value, from = this.#begin) {
        const elements = this.#elements;
        let low = from - this.#offset;
        let high = this.#end - this.#offset;
        while (low < high) {
            const middle = (low + high) >>> 1;
            if (elements[middle] < value) low = middle + 1;
            else high = middle;
        }
        return low + this.#offset;
    }
}

/** Places that follow from a rule. @implements {Places} */
export class RegularColumn {
    #start;
    #step;
    #extent;

    /** @param {[number, number]} rule start and step
     * @param {{begin: number, end: number}} extent the elements that there are, by another column */
    constructor([start, step], extent) {
        this.#start = start;
        this.#step = step;
        this.#extent = extent;
    }
    get begin() {
        return this.#extent.begin;
    }
    get end() {
        return this.#extent.end;
    }
    get isSorted() {
        return this.#step > 0;
    }
    /** @param {number} index */
    at(index) {
        return this.#start + index * this.#step;
    }
    /** @param {number} from @param {number} to @param {number} [least]
     * @returns {[number, number]} */
    extremes(from, to, least = -Infinity) {
        if (!(from < to)) return [Infinity, -Infinity];
        const ends = [this.at(from), this.at(to - 1)].sort((a, b) => a - b);
        if (ends[0] > least) return [ends[0], ends[1]];
        if (!(ends[1] > least)) return [Infinity, -Infinity];
        // Of a logarithmic axis: the lowest that is above it, from either end.
        const nearest = Math.floor((least - this.#start) / this.#step);
        let index = Math.min(Math.max(nearest, from), to - 1);
        while (!(this.at(index) > least)) index += Math.sign(this.#step);
        return [this.at(index), ends[1]];
    }
    /** @param {number} value @param {number} [from] */
    lowerBound(value, from = this.begin) {
        let index = Math.ceil((value - this.#start) / this.#step);
        if (!(index > from)) index = from;
        if (index > this.end) return this.end;
        // Division and multiplication do not round alike.
        while (index > from && this.at(index - 1) >= value) --index;
        while (index < this.end && this.at(index) < value) ++index;
        return index;
    }
}
