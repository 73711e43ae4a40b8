// SNR and frequency of one beacon over hours to a year, one colour for each receiver.
/* global uPlot */
import { byId, COLOURS, colour, get, number, showLegend } from "./kit.js";

const CHART_PX = 160;
const HOUR_S = 3600, DAY_S = 86400;
const AGAIN_MS = 15000;

// UTC, as fine as the steps of an axis ask for.
const times = (_, utcs, _axis, _space, step) => utcs.map((utc) => {
    const text = new Date(1000 * utc).toISOString();
    if (step >= 28 * DAY_S) return text.slice(0, 7);
    return step >= DAY_S || (step >= HOUR_S && utc % DAY_S === 0) ? text.slice(5, 10) : text.slice(11, 16);
});

// A chart of series over one axis of time, in its element.
export class Chart {
    constructor(element) {
        this.element = element;
        new ResizeObserver(() => this.plot?.setSize({ width: element.clientWidth, height: CHART_PX })).observe(element);
        matchMedia("(prefers-color-scheme: dark)").addEventListener("change", () => this.data && this.show(this.data, this.range));
    }

    // data: times, and the values of each series. Names stand in a legend outside.
    show(data, range) {
        this.data = data;
        this.range = range;
        this.plot?.destroy();
        const axis = { stroke: colour("--dim"), grid: { stroke: colour("--line"), width: 1 },
            ticks: { stroke: colour("--line") } };
        const lines = data.slice(1).map((_, k) => ({ stroke: colour(`--c${k % COLOURS}`), width: 1.5, spanGaps: true,
            points: { show: true, size: 4, fill: colour(`--c${k % COLOURS}`) } }));
        this.plot = new uPlot({ width: this.element.clientWidth, height: CHART_PX, legend: { show: false },
            tzDate: (utc) => uPlot.tzDate(new Date(1000 * utc), "UTC"), cursor: { drag: { x: false, y: false } },
            scales: { x: { time: true, range: () => range }, y: { range: (_, low, high) => low === null ? [0, 1]
                : [low - 0.1 * (high - low) - 0.5, high + 0.1 * (high - low) + 0.5] } },
            series: [{}, ...lines], axes: [{ ...axis, values: times }, { ...axis, size: 55 }] }, data, this.element);
    }
}

// Curves of several receivers on one axis of time. Points: rows of columns.
export function joined(curves, column) {
    if (curves.length === 0) return [[]];
    return uPlot.join(curves.map(({ points }) => [points.map((point) => point[0]), points.map((point) => point[column])]));
}

const snr = new Chart(byId("snr-chart"));
const frequency = new Chart(byId("frequency-chart"));
let asked = 0;
let shownAt = 0;

export async function load() {
    const form = byId("curve-form");
    const call = form.call.value;
    if (!call) return;
    const question = ++asked;
    shownAt = performance.now();
    const until = Math.ceil(Date.now() / 60000) * 60;
    const from = until - 3600 * Number(form.hours.value);
    const { receivers, step_s: step } = await get("/api/curve", { call, from, until });
    if (question !== asked) return;
    showLegend(byId("curve-legend"), receivers.map((one) => one.receiver));
    snr.show(joined(receivers, 2), [from, until]);
    const all = receivers.flatMap(({ points }) => points.map((point) => point[5])).sort((a, b) => a - b);
    const middle = all.length > 0 ? all[all.length >> 1] : 0;
    byId("frequency-title").textContent = all.length > 0 ? `Frequency, Hz from ${number(middle, 1)} Hz` : "Frequency, Hz";
    const shifted = receivers.map(({ points }) => ({ points: points.map((point) => [...point.slice(0, 5), point[5] - middle]) }));
    frequency.show(joined(shifted, 5), [from, until]);
    const count = receivers.map(({ receiver, points }) =>
        `${points.reduce((sum, point) => sum + point[1], 0)} spots by ${receiver}`);
    byId("curve-text").textContent = `${call}: ${count.join(", ") || "no spots in this time"}` +
        (step > 60 ? `; each point is the mean of ${number(step / 60, 0)} minutes.` : ".");
}

export function showBeacons(calls) {
    const select = byId("curve-form").call;
    const known = [...select.options].map((option) => option.value);
    if (calls.every((call) => known.includes(call))) return;
    const chosen = select.value;
    select.replaceChildren(...[...new Set([...known, ...calls])].sort().map((call) => new Option(call, call)));
    if (chosen) select.value = chosen;
    load();
}

export function choose(call) {
    showBeacons([call]);
    byId("curve-form").call.value = call;
    load();
    byId("curve").scrollIntoView();
}

export function add(spots) {
    showBeacons(spots.map((spot) => spot.call));
    const shown = byId("curve-form").call.value;
    if (spots.some((spot) => spot.call === shown) && performance.now() - shownAt > AGAIN_MS) load();
}

export function begin() {
    byId("curve-form").addEventListener("change", load);
}
