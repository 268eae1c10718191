// The monitor's data files, read for themselves.
import { readFileSync } from "node:fs";

const DATA = new URL("../../../examples/monitor/data/", import.meta.url);
const WEEK = 7 * 24 * 3600 * 1000;

/** Millivolts at 360 Hz. */
export function readEcg() {
    const raw = readFileSync(new URL("ecg_u16le_360hz.raw", DATA));
    return Array.from({ length: raw.length / 2 }, (_, i) => (raw.readUInt16LE(2 * i) - 1024) / 200);
}

/** [longitude, latitude, magnitude] of what is shown after so many of the week's 300 frames. */
export function readQuakes(frames) {
    const rows = readFileSync(new URL("earthquakes.csv", DATA), "utf8").trim().split("\n").slice(1);
    const quakes = rows.map((row) => row.split(",", 5).map(Number));
    const end = quakes[0][0] + (frames * WEEK) / 300;
    return quakes
        .filter(([time]) => time < end)
        .map(([, longitude, latitude, , magnitude]) => [longitude, latitude, magnitude]);
}

/** [longitude, latitude] of the coastlines' vertices. */
export function readCoast() {
    const rows = readFileSync(new URL("coastline.csv", DATA), "utf8").split("\n").slice(1);
    return rows.filter((row) => row !== "").map((row) => row.split(",").map(Number));
}
