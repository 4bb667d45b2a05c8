// Shows the states of the services, and asks for them again every two seconds.
"use strict";

const kInterval = 2000;
const kStale = 30;  // seconds
const kColumns = ["label", "type", "state", "pid", "starts", "crashes", "why"];

function rowOf(service) {
  const row = document.createElement("tr");
  row.dataset.label = service.label;
  row.dataset.state = service.state;
  for (const column of kColumns) row.insertCell().textContent = service[column] ?? "";
  return row;
}

function textOf(states) {
  if (states.services === null) return "The service manager does not answer.";
  const age = Math.round(Date.now() / 1000) - states.time;
  if (age > kStale) return `These states are ${age} seconds old.`;
  return "These are the states of now.";
}

async function show() {
  const told = document.getElementById("told");
  try {
    const answer = await fetch("states.json");
    if (!answer.ok) throw new Error(answer.statusText);
    const states = await answer.json();
    if (states.services) document.getElementById("services").replaceChildren(...states.services.map(rowOf));
    told.textContent = textOf(states);
  } catch (error) {
    told.textContent = `The states can't be had: ${error.message}`;
  }
  setTimeout(show, kInterval);
}

show();
