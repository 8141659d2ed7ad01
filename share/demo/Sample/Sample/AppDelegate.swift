import Cocoa

// The smallest app worth releasing: one window that says which version it is.
@main
final class AppDelegate: NSObject, NSApplicationDelegate {
    private var window: NSWindow?

    static func main() {
        let app = NSApplication.shared
        let delegate = AppDelegate()
        app.delegate = delegate
        app.run()
    }

    func applicationDidFinishLaunching(_ notification: Notification) {
        let info = Bundle.main.infoDictionary ?? [:]
        let version = info["CFBundleShortVersionString"] as? String ?? "?"
        let build = info["CFBundleVersion"] as? String ?? "?"
        let window = NSWindow(contentRect: NSRect(x: 0, y: 0, width: 360, height: 140),
                              styleMask: [.titled, .closable], backing: .buffered, defer: false)
        window.title = "Sample"
        window.contentView = NSTextField(labelWithString: "Sample \(version) (\(build))")
        window.center()
        window.makeKeyAndOrderFront(nil)
        self.window = window
    }

    func applicationShouldTerminateAfterLastWindowClosed(_ sender: NSApplication) -> Bool { true }
}
