// Makes the search work where the site is opened from a folder. Browsers then allow neither workers
// nor requests: the index comes as a script, and a hidden frame takes the worker's place.
"use strict";

if (location.protocol === "file:") {
  const base = document.currentScript.dataset.base;
  document.write(`<script src="${base}/search/search_index.js"></script>`);

  window.Worker = class extends EventTarget {
    constructor(url) {
      super();
      this.waiting = [];
      const frame = document.createElement("iframe");
      frame.hidden = true;
      document.body.append(frame);
      this.scope = frame.contentWindow;
      this.scope.postMessage = (data) =>
        this.dispatchEvent(new MessageEvent("message", { data }));
      const script = frame.contentDocument.createElement("script");
      script.src = url;
      script.onload = () => {
        const waiting = this.waiting;
        this.waiting = null;
        waiting.forEach((data) => this.postMessage(data));
      };
      frame.contentDocument.body.append(script);
    }

    postMessage(data) {
      if (this.waiting) {
        this.waiting.push(data);
      } else {
        this.scope.dispatchEvent(new this.scope.MessageEvent("message", { data }));
      }
    }
  };
}
