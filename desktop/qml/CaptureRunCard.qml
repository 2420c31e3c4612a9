// The Capture surface's detail: the workflow step, the scenario and the profiling plan's progress.
import QtQuick

Card {
    objectName: "surface-capture"
    Accessible.name: "Capture Surface"
    title: "Capture run"
    DetailList {
        title: "Workflow"
        lines: capture ? [capture.currentWorkflowLabel,
                          "Scenario: " + capture.profilingScenarioLabel,
                          capture.profilingPlanIsRunning
                              ? "Scripted plan: " + capture.profilingPlanProgress
                              : "No scripted plan is running."]
                       : []
    }
}
