// The same transmissions as several receivers heard them.
import { byId, clock, get, make, number } from "./kit.js";

const SHOWN = 30;
let timer = null;

function draw(transmissions) {
    const names = [...new Set(transmissions.flatMap(({ hearings }) => hearings.map((one) => one.receiver ?? "")))].sort();
    const heads = ["UTC", "Beacon", "Protocol"].map((text) => make("th", { scope: "col" }, text));
    byId("side-head").replaceChildren(make("tr", {}, ...heads,
        ...names.map((name) => make("th", { scope: "col", className: "n" }, name))));
    byId("side-rows").replaceChildren(...transmissions.map(({ call, protocol, utc_start: start, hearings }) => {
        const best = Math.max(...hearings.map((one) => one.snr_db ?? -Infinity));
        const cells = names.map((name) => {
            const heard = hearings.find((one) => (one.receiver ?? "") === name);
            const text = heard ? number(heard.snr_db, 1) : "";
            const strong = heard && hearings.length > 1 && heard.snr_db === best;
            return make("td", { className: "n" }, strong ? make("strong", {}, text) : text);
        });
        return make("tr", {}, make("td", {}, clock(start)), make("td", {}, call), make("td", {}, protocol), ...cells);
    }));
}

export async function load() {
    draw((await get("/api/transmissions", { limit: SHOWN })).transmissions);
}

// Several spots at a time are one question.
export function add() {
    timer ??= setTimeout(() => {
        timer = null;
        load().catch(() => {});
    }, 1000);
}
