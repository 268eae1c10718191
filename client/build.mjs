// Puts the page into dist/: one script for each of its threads, one style sheet, and what else a browser asks for.
import { copyFile, mkdir, rm } from "node:fs/promises";
import { fileURLToPath } from "node:url";

import { build } from "esbuild";

const here = (/** @type {string} */ path) => fileURLToPath(new URL(path, import.meta.url));

await rm(here("dist"), { recursive: true, force: true });
await mkdir(here("dist"), { recursive: true });
await build({
    entryPoints: {
        page: here("page/main.mjs"),
        worker: process.argv[2] ?? here("page/worker/worker.mjs"),
    },
    outdir: here("dist"),
    bundle: true,
    minify: true,
    legalComments: "none",
    target: "es2022",
    logLevel: "warning",
});
await build({
    entryPoints: { page: here("page/page.css") },
    outdir: here("dist"),
    bundle: true,
    minify: true,
    logLevel: "warning",
});
await copyFile(here("page/index.html"), here("dist/index.html"));
await copyFile(here("icon.svg"), here("dist/icon.svg"));
