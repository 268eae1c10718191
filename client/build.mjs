// Puts the page into dist/: one script for each of its threads, one style sheet, and what else a browser asks for.
import { appendFile, copyFile, mkdir, readFile, rm } from "node:fs/promises";
import { fileURLToPath } from "node:url";

import { build } from "esbuild";

const here = (/** @type {string} */ path) => fileURLToPath(new URL(path, import.meta.url));

await rm(here("dist"), { recursive: true, force: true });
await mkdir(here("dist"), { recursive: true });

/** Bundles, with the licences of the packages that are in it as a comment at the end of each file.
 * @param {import("esbuild").BuildOptions} options */
async function bundle(options) {
    const { metafile } = await build({
        outdir: here("dist"),
        absWorkingDir: here("."),
        bundle: true,
        minify: true,
        metafile: true,
        legalComments: "none",
        logLevel: "warning",
        ...options,
    });
    for (const [path, { inputs }] of Object.entries(metafile.outputs)) {
        const names = Object.keys(inputs).map((input) => /^node_modules\/([^/]+)/.exec(input)?.[1]);
        for (const name of new Set(names)) {
            if (!name) continue;
            const licence = await readFile(here(`node_modules/${name}/LICENSE`), "utf8");
            await appendFile(here(path), `/*! ${name}\n\n${licence.trim()}\n*/\n`);
        }
    }
}

await bundle({
    entryPoints: {
        page: here("page/main.mjs"),
        worker: process.argv[2] ?? here("page/worker/worker.mjs"),
    },
    target: "es2022",
});
await bundle({ entryPoints: { page: here("page/page.css") } });
await copyFile(here("page/index.html"), here("dist/index.html"));
await copyFile(here("icon.svg"), here("dist/icon.svg"));
