/* The standalone neighbor page: loads the shared view module (tarn-neighbors.js, the very file
 * LuCI's view requires) the way LuCI's loader does, then draws the CGI's answer every few
 * seconds. */
(function () {
	'use strict';

	const MODULE_URL = 'tarn-neighbors.js';
	const DATA_URL = '/cgi-bin/tarn-neighbors';

	/* The one class the module requires. As in LuCI, extend() gives a constructor whose
	 * instances carry the properties and run __init__. */
	const baseclass = {
		extend(properties) {
			function Class() {
				if (typeof this.__init__ === 'function')
					this.__init__.apply(this, arguments);
			}
			Class.prototype = Object.assign(Object.create(null), properties);
			return Class;
		}
	};
	const provided = { baseclass: baseclass };

	/* LuCI's loader reads the leading string statements ('use strict', 'require NAME [as
	 * ALIAS]'), evaluates the text as the body of a function of window, document, L and the
	 * required classes, and instantiates the class it returns. */
	function instantiate(source) {
		const names = [], values = [];
		const directive = /^\s*(?:\/\*[\s\S]*?\*\/\s*)?'([^'\n]*)';/;
		let rest = source, match;
		while ((match = directive.exec(rest)) !== null) {
			const words = match[1].trim().split(/\s+/);
			if (words[0] === 'require') {
				if (!(words[1] in provided))
					throw new Error(`${MODULE_URL} requires "${words[1]}", which this page lacks`);
				names.push(words[3] || words[1].replace(/[^a-zA-Z0-9_]/g, '_'));
				values.push(provided[words[1]]);
			} else if (match[1] !== 'use strict') {
				break;
			}
			rest = rest.slice(match[0].length);
		}
		const factory = new Function('window', 'document', 'L', ...names, source);
		const Class = factory(window, document, null, ...values);
		return new Class();
	}

	function show(container, node) {
		container.replaceChildren(node);
	}

	async function readTable() {
		let response;
		try {
			response = await fetch(DATA_URL, { cache: 'no-store' });
		} catch (err) {
			return { error: `the AP's web server did not answer (${err.message})` };
		}
		try {
			return await response.json();
		} catch (err) {
			return { error: `HTTP ${response.status}: the answer is not JSON` };
		}
	}

	async function start() {
		const container = document.getElementById('tarn-neighbors');
		let view;
		try {
			const response = await fetch(MODULE_URL);
			view = instantiate(await response.text());
		} catch (err) {
			container.textContent = `The page could not load ${MODULE_URL}: ${err.message}`;
			return;
		}
		const requested = new URLSearchParams(window.location.search).get('interval');
		const seconds = view.pollSeconds(requested);
		container.dataset.pollSeconds = seconds;
		const refresh = async () => {
			show(container, view.render(await readTable()));
			container.dataset.refreshes = Number(container.dataset.refreshes || 0) + 1;
			window.setTimeout(refresh, seconds * 1000);
		};
		refresh();
	}

	start();
})();
