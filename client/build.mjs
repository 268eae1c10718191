// Puts the page into dist/: one script for each of its threads, one style sheet, and what else a browser asks for.
import { appendFile, copyFile, mkdir, readFile, rm, writeFile } from "node:fs/promises";
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

/** No script or style may hold what ends the element that it is to stand in. @param {string} name */
async function assertEmbeddable(name) {
    const text = await readFile(here(`dist/${name}`), "utf8");
    if (/<\/(script|style)|<!--/i.test(text)) throw new Error(`${name} cannot stand in a page`);
}

/** The page as one file: a template with places in double braces for what is to stand in it. */
async function singlePage() {
    const icon = encodeURIComponent(await readFile(here("icon.svg"), "utf8"));
    const policy =
        "default-src 'none'; script-src 'unsafe-inline'; style-src 'unsafe-inline'; " +
        "img-src data: blob:; worker-src blob:; base-uri 'none'; form-action 'none'";
    const changes = [
        [
            '<meta charset="utf-8" />',
            `$&\n        <meta http-equiv="Content-Security-Policy" content="${policy}" />`,
        ],
        ["icon.svg", `data:image/svg+xml,${icon}`],
        ['<link rel="stylesheet" href="page.css" />', "<style>{{page.css}}</style>"],
        ['<script src="page.js" defer></script>', ""],
        [
            "</body>",
            '<script type="text/plain" id="worker">{{worker.js}}</script>\n' +
                '<script type="text/plain" id="recording" data-at="{{at}}">{{recording}}</script>\n' +
                "<script>{{page.js}}</script>\n$&",
        ],
    ];
    let page = await readFile(here("page/index.html"), "utf8");
    for (const [from, to] of changes) {
        if (page.split(from).length !== 2) throw new Error(`index.html: not one "${from}"`);
        page = page.replace(from, to);
    }
    return page;
}

for (const name of ["page.js", "worker.js", "page.css"]) await assertEmbeddable(name);
await writeFile(here("dist/single.html"), await singlePage());
await copyFile(here("page/index.html"), here("dist/index.html"));
await copyFile(here("icon.svg"), here("dist/icon.svg"));
