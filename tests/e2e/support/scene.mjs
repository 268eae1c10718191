// The program that draws scenes for tests.
import { Program } from "./program.mjs";

export class Scene extends Program {
    static start(name, ...options) {
        return Scene.run(process.env.KIROWEB_SCENES, [name, ...options.map(String)]);
    }
    /** What it has told of its data; a gap is NaN there. */
    get told() {
        const lines = this.lines.filter((line) => line.startsWith("data "));
        return lines.map((line) =>
            JSON.parse(line.slice(5), (_, value) => (value === null ? NaN : value)),
        );
    }
}
