// The page is complete without this script, which adds the filter, the zoom and tooltips.
"use strict";

(() => {
    const all = (selector, parent = document) => Array.from(parent.querySelectorAll(selector));

    // --- The filter ---

    const input = document.getElementById("filter");
    const count = document.getElementById("count");
    const filtered = all("[data-job]");

    function applyFilter() {
        const wanted = input.value.trim().toLowerCase();
        for (const element of filtered) {
            const text = element.dataset.job + " " + (element.tagName === "TR" ? element.textContent : "");
            element.hidden = !text.toLowerCase().includes(wanted);
        }
        const rows = all("tbody tr");
        count.textContent = wanted ? rows.filter((row) => !row.hidden).length + " of " + rows.length + " jobs" : "";
    }

    // "#filter=backup" in the address of the page.
    function readAddress() {
        const match = /^#filter=(.*)$/.exec(location.hash);
        if (!match) return;
        try {
            input.value = decodeURIComponent(match[1]);
        } catch {
            input.value = match[1];
        }
        applyFilter();
    }

    for (const element of all(".filter, .tools")) element.hidden = false;
    input.addEventListener("input", applyFilter);
    window.addEventListener("hashchange", readAddress);
    readAddress();

    // --- The zoom ---

    for (const picture of all(".picture")) {
        const scroll = picture.querySelector(".scroll");
        let zoom = 1;
        const show = (next) => {
            const middle = (scroll.scrollLeft + scroll.clientWidth / 2) / scroll.scrollWidth;
            zoom = Math.min(Math.max(next, 1), 32);
            picture.style.setProperty("--zoom", zoom);
            picture.classList.toggle("zoomed", zoom > 3);
            scroll.scrollLeft = middle * scroll.scrollWidth - scroll.clientWidth / 2;
        };
        const on = (kind, factor) =>
            picture.querySelector("." + kind).addEventListener("click", () => show(factor === 0 ? 1 : zoom * factor));
        on("in", 2);
        on("out", 0.5);
        on("whole", 0);
    }

    // --- Tooltips ---

    const tip = document.createElement("div");
    tip.className = "tip";
    tip.hidden = true;
    document.body.append(tip);

    // The titles are replaced by the tooltip when the pointer first comes to a track.
    function marksOf(track) {
        if (!track.marks)
            track.marks = all("title", track).map((title) => {
                const mark = { shape: title.parentNode, text: title.textContent };
                title.remove();
                return mark;
            });
        return track.marks;
    }

    function nearest(track, x) {
        let best = null;
        let least = 12; // pixels
        for (const mark of marksOf(track)) {
            const box = mark.shape.getBoundingClientRect();
            const distance = Math.max(box.left - x, x - box.right, 0);
            if (distance < least || (distance === least && least === 0)) {
                best = mark;
                least = distance;
            }
        }
        return best;
    }

    document.addEventListener("pointermove", (event) => {
        const track = event.target.closest ? event.target.closest(".track") : null;
        const mark = track && nearest(track, event.clientX);
        tip.hidden = !mark;
        if (!mark) return;
        tip.textContent = mark.text;
        const width = document.documentElement.clientWidth;
        tip.style.left = Math.max(8, Math.min(event.clientX + 14, width - tip.offsetWidth - 8)) + "px";
        tip.style.top = event.clientY + 18 + "px";
    });
})();
