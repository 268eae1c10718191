// Tabs that playwright does not know: those that it knows it holds to be looked at, never hidden.

export class Tab {
    #browser;
    #target;
    #session;
    #answers = new Map();

    /** A tab in front of the others. `browser` is a session with the whole browser. */
    static async open(browser, url) {
        const tab = new Tab();
        tab.#browser = browser;
        tab.#target = await browser.send("Target.createTarget", { url: "about:blank" });
        tab.#session = await browser.send("Target.attachToTarget", tab.#target);
        browser.on("Target.receivedMessageFromTarget", ({ sessionId, message }) => {
            const { id, ...answer } = JSON.parse(message);
            if (sessionId === tab.#session.sessionId) tab.#answers.get(id)?.(answer);
        });
        await tab.#send("Page.navigate", { url });
        return tab;
    }
    show() {
        return this.#browser.send("Target.activateTarget", this.#target);
    }
    close() {
        return this.#browser.send("Target.closeTarget", this.#target);
    }
    /** Ends when the expression is true, with its value. */
    async until(condition) {
        const expression = `new Promise((done) => {
            const look = () => (${condition} ? done(${condition}) : setTimeout(look, 20));
            look();
        })`;
        const how = { expression, awaitPromise: true, returnByValue: true };
        const { result, exceptionDetails } = await this.#send("Runtime.evaluate", how);
        if (exceptionDetails) throw new Error(JSON.stringify(exceptionDetails));
        return result.value;
    }
    async #send(method, params) {
        const id = this.#answers.size + 1;
        const answer = new Promise((resolve) => this.#answers.set(id, resolve));
        const message = JSON.stringify({ id, method, params });
        await this.#browser.send("Target.sendMessageToTarget", { ...this.#session, message });
        const { result, error } = await answer;
        if (error) throw new Error(`${method}: ${error.message}`);
        return result;
    }
}
