// What a time line says of a stretch of time.

/** Bits. */
export const MARK = { frame: 1, late: 2, error: 4, damage: 8 };
/** How many there are, each as long as the others. */
export const STRETCHES = 1000;
