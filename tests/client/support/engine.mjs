// What an engine says to a page, and hears of it, through a scripted gateway.

export const CONFIGURATION = {
    vocabulary: "kirofigures/1",
    commands: "/commands",
    blocks: "/blocks",
    ready: "/ready",
    newView: "/view",
    events: "/events",
    title: "Laboratory",
};

export class Engine {
    #number = 1;
    #sequence = 0;
    #block = 2;
    #frame = 0;
    #heard = [];
    /** Whether it wants keys. */
    listens = false;
    /** Welcomes a page's next connection. */
    async meet(gateway, welcome) {
        this.peer = await gateway.peer();
        const { blocks } = CONFIGURATION;
        await this.peer.welcome({
            configuration: CONFIGURATION,
            blockChannels: [blocks],
            limits: { message: 65536 },
            next: this.#number,
            ...welcome,
        });
    }
    raw(text) {
        this.peer.batch(this.#number++, [[CONFIGURATION.commands, text]]);
    }
    say(cmd, members) {
        this.raw(JSON.stringify({ seq: ++this.#sequence, ...members, cmd }));
    }
    create(id, type, parent, properties) {
        this.say("create", { id, type, ...(parent && { parent }), ...properties });
    }
    /** Columns as arrays of numbers; they travel as 64-bit floats. */
    data(id, columns, first = 0) {
        const block = (this.#block += 2);
        const values = Float64Array.from([0, ...Object.values(columns).flat()]);
        new DataView(values.buffer).setUint32(0, block, true);
        this.peer.piece(block, this.#number++, Buffer.from(values.buffer));
        const count = Object.values(columns)[0].length;
        const named = Object.keys(columns).map((column) => [column, "f64"]);
        this.say("data", { id, data: `${block} 0`, first, count, columns: named });
    }
    begin(whole = false) {
        const frame = this.#frame++;
        this.say("beginFrame", { frame, attempt: 1, whole, keys: this.listens });
        return frame;
    }
    /** The frame that has begun is complete. */
    act(frame) {
        const token = { cmd: "sendACT", ACT: frame, returnChannel: "/back", serverSendTS: 9 };
        this.raw(JSON.stringify(token));
    }
    /** A frame of what `say` says. */
    draw(say, whole) {
        const frame = this.begin(whole);
        say();
        this.act(frame);
    }
    /** The next event of this kind that is as wanted, past or future; each once. */
    async event(kind, isAsWanted = () => true) {
        const isWanted = ({ channel, text }) => {
            const event = channel === CONFIGURATION.events && JSON.parse(text);
            return event.event === kind && isAsWanted(event);
        };
        return JSON.parse((await this.until(isWanted)).text);
    }
    /** The next that the page publishes which is wanted, past or future; each once. */
    async until(isWanted) {
        for (;;) {
            const at = this.#heard.findIndex(isWanted);
            if (at >= 0) return this.#heard.splice(at, 1)[0];
            this.#heard.push(await this.peer.next("publish"));
        }
    }
}
