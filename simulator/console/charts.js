// The two charts of the chosen device: usages, and rates of its interfaces. Colours come from the style sheet.

const LINES_MAX = 8;
let charts = null;

const colour = name => getComputedStyle(document.documentElement).getPropertyValue(name).trim();

function make(id, unit, max) {
  return new Chart(document.getElementById(id), {
    type: 'line',
    data: {labels: [], datasets: []},
    options: {
      animation: false,
      maintainAspectRatio: false,
      interaction: {mode: 'index', intersect: false},
      elements: {point: {radius: 1.5}, line: {borderWidth: 2}},
      scales: {
        x: {ticks: {maxTicksLimit: 5, maxRotation: 0}},
        y: {beginAtZero: true, suggestedMax: max, title: {display: true, text: unit}},
      },
      plugins: {legend: {labels: {boxWidth: 18, boxHeight: 1}}},
    },
  });
}

function paint(chart) {
  for (const axis of [chart.options.scales.x, chart.options.scales.y]) {
    axis.ticks.color = colour('--soft');
    axis.grid = {color: colour('--grid')};
  }
  chart.options.scales.y.title.color = colour('--soft');
  chart.options.plugins.legend.labels.color = colour('--text');
}

// points: objects with "at" and one number for each name; names of the same interface share a colour.
function draw(chart, points, names, unit, digits, missing) {
  const stems = [...new Set(names.map(name => name.replace(/ (in|out)$/, '')))];
  const caption = document.getElementById(chart.canvas.id + '-text');
  chart.data.labels = points.map(point => point.at);
  chart.data.datasets = names.map(name => {
    const line = colour('--chart-' + (1 + stems.indexOf(name.replace(/ (in|out)$/, '')) % 4));
    return {label: name, data: points.map(point => point[name] ?? null), borderColor: line, backgroundColor: line,
      borderDash: name.endsWith(' out') ? [5, 4] : []};
  });
  paint(chart);
  chart.update('none');
  const last = points[points.length - 1];
  const shown = names.filter(name => Number.isFinite(last?.[name]));
  caption.textContent = last ? `${last.at}: ` + (shown.map(name =>
    `${name} ${last[name].toFixed(digits)} ${unit}`).join(', ') || 'nothing known') : missing;
  chart.canvas.setAttribute('aria-label', caption.textContent);
  chart.canvas.dataset.points = points.length;
}

export function drawCharts(device) {
  charts ??= {usage: make('usage', '% in use', 10), rates: make('rates', 'kbit/s', 1)};
  const names = [...new Set(device.rates.flatMap(point => Object.keys(point)))].filter(name => name !== 'at');
  draw(charts.usage, device.usage, ['processor', 'memory', 'disk'], '%', 1, 'No run status yet.');
  draw(charts.rates, device.rates, names.slice(0, LINES_MAX), 'kbit/s', 1,
    'No rates yet: they need two run statuses.');
}
