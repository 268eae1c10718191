// The button that records what the page gets, and gives the file to whoever looks.

import { icon, make } from "../dom.mjs";
import { fileName } from "../file_name.mjs";
import { giveFile } from "../give_file.mjs";
import { sizeText } from "../status_bar.mjs";
import { timeText } from "../time_line.mjs";

const CIRCLE = "M8 3.5a4.5 4.5 0 1 0 0 9 4.5 4.5 0 0 0 0-9Z";
const MOST = 512 * 1024 * 1024;

export class RecordButton {
    #worker;
    #say;
    #fail;
    #label = make("span", {}, "Record");
    #since = 0;
    #isOn = false;
    #surroundings;
    /** Whether it becomes an HTML file. */
    #isPage = false;
    /** Bytes that a recording may have. */
    most = MOST;

    /** @param {import("../worker_link.mjs").WorkerLink} worker
     * @param {(text: string) => void} say to those who do not see it
     * @param {(error: Error) => void} fail it has ended by itself
     * @param {{begun: () => void, save: (file: Blob) => Promise<void>}} surroundings `save` gives
     *   it as one HTML file */
    constructor(worker, say, fail, surroundings) {
        this.#worker = worker;
        this.#say = say;
        this.#fail = fail;
        this.#surroundings = surroundings;
        this.element = make(
            "button",
            {
                type: "button",
                class: "record",
                "aria-label": "Record",
                "aria-keyshortcuts": "r",
                title: "Record what comes, and download it (r)",
                click: () => this.press(),
            },
            icon(CIRCLE),
            this.#label,
        );
        this.saveElement = make(
            "button",
            {
                type: "button",
                title: "End the recording, and download it as one HTML file",
                click: () => this.#savePage(),
            },
            "Save as HTML",
        );
        this.#show(false);
        addEventListener("beforeunload", (event) => {
            if (this.#isOn) event.preventDefault();
        });
    }

    /** Begins, or ends. */
    press() {
        this.#worker.post({ kind: "record", most: this.#isOn ? null : this.most });
        // It is off once the file is there.
        if (this.#isOn) return;
        this.#isPage = false;
        this.#surroundings.begun();
        this.#since = performance.now();
        this.#show(true);
        this.#say("Recording");
    }

    /** Nothing comes that could be recorded. */
    hide() {
        this.element.hidden = true;
        this.saveElement.hidden = true;
    }

    #savePage() {
        this.#isPage = true;
        this.press();
    }

    /** @param {number} bytes of the recording, so far */
    showSize(bytes) {
        if (!this.#isOn) return;
        const [time] = timeText(performance.now() - this.#since).split(".");
        this.#label.textContent = `Record ${time} · ${sizeText(bytes)}`;
    }

    /** @param {Blob} file @param {string} reason why it has ended; empty: it was wanted */
    ended(file, reason) {
        this.#show(false);
        void this.#give(file);
        this.#say(`Recorded ${sizeText(file.size)}`);
        if (reason) this.#fail(new Error(`the recording has ended: ${reason}`));
    }

    /** @param {Blob} file */
    async #give(file) {
        try {
            if (this.#isPage) return await this.#surroundings.save(file);
        } catch (thrown) {
            // At least what was recorded is not lost.
            this.#fail(/** @type {Error} */ (thrown));
        }
        return giveFile(file, fileName(document.title, "", new Date(), "mcap"));
    }

    /** @param {boolean} isOn */
    #show(isOn) {
        this.#isOn = isOn;
        this.#label.textContent = "Record";
        this.element.ariaPressed = String(isOn);
        this.saveElement.hidden = !isOn;
    }
}
